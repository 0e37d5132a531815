#include "KTBase/KTSsl.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTSocket.h"
#include "KTBase/KTTime.h"
#include "KTSocketHost.h"
#include "os/KTOsNet.h"

namespace {

constexpr unsigned int kHandshakeMs = 10000;
constexpr std::size_t kHostBytes = 1025;
constexpr std::size_t kReasonBytes = 256;
// OpenSSL's own kinds end far below, those that programs register begin above.
constexpr int kWireType = BIO_TYPE_SOURCE_SINK | 127;

bool Store(CKTString& slot, const char* text) {
    slot = text;
    return slot.EqualTo(text) != 0;
}

unsigned long long ToHandle(int socket) {
    return socket == -1 ? KT_NO_SOCKET : static_cast<unsigned int>(socket);
}

int Clamp(unsigned long long length) {
    return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}

/// An encrypted key must not stop the program to ask for its pass phrase on the terminal.
int NoPassPhrase(char*, int, int, void*) {
    return -1;
}

bool AddTrusted(void* store, const unsigned char* der, int length) {
    X509* certificate = d2i_X509(nullptr, &der, length);
    if (certificate != nullptr)
        X509_STORE_add_cert(static_cast<X509_STORE*>(store), certificate);
    X509_free(certificate);
    return true;  // one that cannot be read costs only itself
}

}  // namespace

/// Carries the session's bytes over the handle: sending raises no signal, and a peer that falls
/// silent in the handshake, or no longer reads at the end, is not waited for without end.
class KTSslWire : public IKTBaseOBJ {
public:
    enum class Phase { Handshake, Data, End };

    explicit KTSslWire(unsigned long long handle)
        : m_method(BIO_meth_new(kWireType, "KTBase socket")), m_handle(handle) {
        if (m_method == nullptr)
            return;
        BIO_meth_set_read(m_method, OnRead);
        BIO_meth_set_write(m_method, OnWrite);
        BIO_meth_set_ctrl(m_method, OnControl);
    }
    KTSslWire(const KTSslWire&) = delete;
    KTSslWire& operator=(const KTSslWire&) = delete;
    /// After the session, whose BIO uses the method.
    ~KTSslWire() override { BIO_meth_free(m_method); }

    bool Attach(SSL* session) {
        BIO* bio = m_method != nullptr ? BIO_new(m_method) : nullptr;
        if (bio == nullptr)
            return false;
        BIO_set_data(bio, this);
        SSL_set_bio(session, bio, bio);
        return true;
    }
    void Enter(Phase phase) {
        m_phase = phase;
        m_enteredUs = CKTTime::GetTimeUS();
    }
    int Error() const { return m_error; }
    bool HasTimedOut() const { return m_timedOut; }

private:
    static int OnRead(BIO* bio, char* buffer, int size) {
        KTSslWire& wire = *static_cast<KTSslWire*>(BIO_get_data(bio));
        return wire.Transfer(bio, KTOsWait::Read,
                             [&] { return KTOsSocketRecv(wire.m_handle, buffer, size, 0); });
    }
    static int OnWrite(BIO* bio, const char* data, int length) {
        KTSslWire& wire = *static_cast<KTSslWire*>(BIO_get_data(bio));
        return wire.Transfer(bio, KTOsWait::Write,
                             [&] { return KTOsSocketSend(wire.m_handle, data, length, 0); });
    }
    static long OnControl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH; }

    template <typename Call>
    int Transfer(BIO* bio, KTOsWait what, Call call) {
        BIO_clear_retry_flags(bio);
        for (;;) {
            if (!MayTransfer(what))
                return -1;
            const int count = call();
            if (count >= 0)
                return count;
            m_error = KTOsNetError();
            if (!KTOsNetWouldBlock(m_error))
                return -1;
            if (m_phase != Phase::Handshake)
                break;
        }
        BIO_set_flags(bio, BIO_FLAGS_SHOULD_RETRY |
                               (what == KTOsWait::Read ? BIO_FLAGS_READ : BIO_FLAGS_WRITE));
        return -1;
    }
    /// Waits where the phase has it so. False when nothing may be transferred any more.
    bool MayTransfer(KTOsWait what) {
        if (m_phase == Phase::Data)
            return true;
        if (m_phase == Phase::End)
            return KTOsSocketWait(m_handle, what, 0) == 1;
        const unsigned long long passedMs = (CKTTime::GetTimeUS() - m_enteredUs) / 1000;
        const unsigned int leftMs =
            passedMs < kHandshakeMs ? kHandshakeMs - static_cast<unsigned int>(passedMs) : 0;
        const int ready = KTOsSocketWait(m_handle, what, leftMs);
        m_timedOut = ready == 0;
        if (ready < 0)
            m_error = KTOsNetError();
        return ready == 1;
    }

    BIO_METHOD* m_method;
    unsigned long long m_handle;
    Phase m_phase = Phase::Data;
    unsigned long long m_enteredUs = 0;
    int m_error = 0;  // the system's number for the last failure
    bool m_timedOut = false;
};

CKTSsl::CKTSsl()
    : m_useSsl(false),
      m_reserved(true),
      m_context(nullptr),
      m_session(nullptr),
      m_socket(-1),
      m_bound(false),
      m_wire(nullptr),
      m_verify(false) {}

CKTSsl::~CKTSsl() {
    CKTSsl::FreeSsl();
}

void CKTSsl::InitSsl() {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
}

// ---- settings ----

void CKTSsl::SetUseSsl(bool useSsl) {
    m_useSsl = useSsl;
}

bool CKTSsl::GetUseSsl() {
    return m_useSsl;
}

void CKTSsl::SetSocket(int handle) {
    m_socket = handle;
}

int CKTSsl::SetCertsPathName(const char* caFile, const char* certFile, const char* keyFile) {
    if (caFile != nullptr)
        m_caPath = certFile;
    if (certFile != nullptr)
        m_certPath = certFile;
    if (keyFile != nullptr)
        m_keyPath = keyFile;
    return KT_OK;
}

int CKTSsl::SetVerify(const char* hostName, const char* caFile) {
    m_verify = true;  // first: without memory nothing is trusted rather than all
    return Store(m_verifyHost, hostName) && Store(m_verifyCa, caFile) ? KT_OK : KT_NO_MEMORY;
}

int CKTSsl::SetServerName(const char* host) {
    char name[kHostBytes];
    if (host == nullptr || !KTSocketHost(host, name, sizeof(name)))
        name[0] = 0;
    return Store(m_serverName, name) ? KT_OK : KT_NO_MEMORY;
}

const char* CKTSsl::GetReason() const {
    return m_reason.IsEmpty() ? "" : m_reason.GetBuffer();
}

// ---- session ----

bool CKTSsl::BindSsl() {
    if (!m_useSsl || m_socket == -1 || m_context != nullptr)
        return false;
    InitSsl();
    ERR_clear_error();
    m_reason.Empty(false);
    if (CreateContext() && CheckCerts() && CreateSession() && Connect())
        return true;
    ERR_clear_error();
    return false;
}

bool CKTSsl::CreateContext() {
    m_context = SSL_CTX_new(TLS_client_method());
    if (m_context == nullptr) {
        KTPrintf("BindSsl => SSL_CTX_new fail\n");
        return false;
    }
    SSL_CTX_set_mode(m_context, SSL_MODE_AUTO_RETRY | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                    SSL_MODE_ENABLE_PARTIAL_WRITE);
    SSL_CTX_set_options(m_context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_default_passwd_cb(m_context, NoPassPhrase);
    return true;
}

bool CKTSsl::FailCerts(const char* text) {
    KTPrintf("%s", text);
    SetReason();
    FreeSsl();
    return false;
}

bool CKTSsl::CheckCerts() {
    if (m_caPath.IsEmpty() || m_certPath.IsEmpty() || m_keyPath.IsEmpty())
        return true;
    if (SSL_CTX_load_verify_locations(m_context, m_caPath.GetBuffer(), nullptr) != 1)
        return FailCerts("SSL_CTX_load_verify_locations error");
    if (SSL_CTX_use_certificate_file(m_context, m_certPath.GetBuffer(), SSL_FILETYPE_PEM) != 1)
        return FailCerts("ERROR: no certificate found!");
    if (SSL_CTX_use_PrivateKey_file(m_context, m_keyPath.GetBuffer(), SSL_FILETYPE_PEM) != 1)
        return FailCerts("ERROR: no private key found!");
    if (SSL_CTX_check_private_key(m_context) != 1)
        return FailCerts("ERROR: invalid private key!\n");
    return true;
}

bool CKTSsl::CreateSession() {
    m_session = SSL_new(m_context);
    m_wire = m_session != nullptr ? new KTSslWire(ToHandle(m_socket)) : nullptr;
    if (m_wire == nullptr || !m_wire->Attach(m_session)) {
        KTPrintf("InitSSL ==> SSL_new fail\n");
        return false;
    }
    char host[kHostBytes];
    const CKTString& wanted = m_verifyHost.IsEmpty() ? m_serverName : m_verifyHost;
    if (wanted.IsEmpty() || !KTSocketHost(wanted.GetBuffer(), host, sizeof(host)))
        host[0] = 0;
    if (host[0] != 0 && !KTSocketHostIsLiteral(host))
        SSL_set_tlsext_host_name(m_session, host);
    return !m_verify || PrepareVerify(host);
}

bool CKTSsl::LoadTrust() {
    if (!m_verifyCa.IsEmpty())
        return SSL_CTX_load_verify_locations(m_context, m_verifyCa.GetBuffer(), nullptr) == 1;
    return KTOsTrust(AddTrusted, SSL_CTX_get_cert_store(m_context)) ||
           SSL_CTX_set_default_verify_paths(m_context) == 1;
}

/// host: without brackets.
bool CKTSsl::PrepareVerify(const char* host) {
    X509_VERIFY_PARAM* wanted = SSL_get0_param(m_session);
    X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    SSL_set_verify(m_session, SSL_VERIFY_PEER, nullptr);
    if (*host == 0) {
        m_reason = "no host to verify";
        return false;
    }
    const int set = KTSocketHostIsLiteral(host) ? X509_VERIFY_PARAM_set1_ip_asc(wanted, host)
                                                : X509_VERIFY_PARAM_set1_host(wanted, host, 0);
    if (set == 1 && LoadTrust())
        return true;
    SetReason();
    return false;
}

bool CKTSsl::Connect() {
    m_wire->Enter(KTSslWire::Phase::Handshake);
    const int result = SSL_connect(m_session);
    const int error = SSL_get_error(m_session, result);
    m_wire->Enter(KTSslWire::Phase::Data);
    // An orderly refusal, 0, is left to the first transfer to report; not when a check is wanted.
    m_bound = m_verify ? result == 1 : result != -1;
    if (m_bound)
        return true;
    KTPrintf("SSL_connect: %d\n", m_wire->Error());
    KTPrintf("err is %d\n", error);
    SetReason();
    return false;
}

/// From what the session and OpenSSL's queue hold.
void CKTSsl::SetReason() {
    const long verified = m_session != nullptr ? SSL_get_verify_result(m_session) : X509_V_OK;
    const unsigned long error = ERR_peek_error();
    char text[kReasonBytes];
    m_reason.Empty(false);
    if (m_verify && verified != X509_V_OK) {
        m_reason = X509_verify_cert_error_string(verified);
    } else if (m_wire != nullptr && m_wire->HasTimedOut()) {
        m_reason = "the peer is silent";
    } else if (error != 0) {
        ERR_error_string_n(error, text, sizeof(text));
        m_reason = text;
    } else if (m_wire != nullptr && m_wire->Error() != 0) {
        m_reason.Append("system error %d", m_wire->Error());
    } else {
        m_reason = "closed by the peer";
    }
}

void CKTSsl::FreeSsl() {
    if (m_session != nullptr && SSL_is_init_finished(m_session)) {
        m_wire->Enter(KTSslWire::Phase::End);
        SSL_shutdown(m_session);
        ERR_clear_error();
    }
    SSL_free(m_session);
    SSL_CTX_free(m_context);
    delete m_wire;
    m_session = nullptr;
    m_context = nullptr;
    m_wire = nullptr;
    m_socket = -1;
    m_bound = false;
}

// ---- data ----

bool CKTSsl::HasDecrypted() const {
    return m_session != nullptr && SSL_pending(m_session) > 0;
}

int CKTSsl::SendData(const void* data, unsigned long long length, int flags) {
    if (data == nullptr || length == 0)
        return 0;
    if (!m_useSsl) {
        const int count = KTOsSocketSend(ToHandle(m_socket), data, Clamp(length), flags);
        if (count >= 0)
            return count;
        return KTOsNetWouldBlock(KTOsNetError()) ? -1 : -2;
    }
    if (m_session == nullptr)
        return -2;
    ERR_clear_error();
    const int count = SSL_write(m_session, data, Clamp(length));
    if (count > 0)
        return count;
    const int error = SSL_get_error(m_session, count);
    if (error == SSL_ERROR_WANT_WRITE)
        return -1;
    return error == SSL_ERROR_NONE ? 0 : -2;
}

int CKTSsl::RecvData(void* buffer, unsigned long long size, int flags) {
    if (!m_useSsl) {
        const int count = KTOsSocketRecv(ToHandle(m_socket), buffer, Clamp(size), flags);
        if (count > 0)
            return count;
        return count < 0 && KTOsNetWouldBlock(KTOsNetError()) ? 0 : -1;
    }
    if (m_session == nullptr)
        return -1;
    if (buffer == nullptr || size == 0)
        return 0;
    ERR_clear_error();
    const int count = SSL_read(m_session, buffer, Clamp(size));
    if (count > 0)
        return count;
    const int error = SSL_get_error(m_session, count);
    return error == SSL_ERROR_NONE || error == SSL_ERROR_WANT_READ ? 0 : -1;
}
