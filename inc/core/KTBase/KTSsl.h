// The TLS client that a stream socket holds while TLS is switched on.
#ifndef KTBASE_KTSSL_H
#define KTBASE_KTSSL_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTBase/KTSysTypes.h"

struct ssl_ctx_st;
struct ssl_st;
class KTSslWire;

/// TLS client over one connected handle, which stays its owner's. With TLS switched off the data
/// calls go to the handle itself. Used by one thread at a time.
///
/// The server's certificate is not checked unless SetVerify asks for it: devices sign their own.
class KTBASE_API CKTSsl : public IKTBaseOBJ {
public:
    CKTSsl();
    CKTSsl(const CKTSsl&) = delete;
    CKTSsl& operator=(const CKTSsl&) = delete;
    ~CKTSsl() override;

    virtual void SetUseSsl(bool useSsl);
    virtual bool GetUseSsl();
    virtual void SetSocket(int handle);  ///< -1: none
    /// Shakes hands as a client, waiting up to 10 seconds in all, whether or not the handle blocks.
    /// False when TLS is off, without handle, when bound before and not freed since, and on failure.
    virtual bool BindSsl();
    /// Ends the session; its handle is forgotten, not closed. Flag, paths and what SetVerify and
    /// SetServerName have set stay.
    virtual void FreeSsl();
    /// Returns the bytes sent, maybe fewer than length; 0; -1 when it would block: call again with
    /// the same data, which may have moved and grown; -2 when it failed or there is no session.
    /// flags: of send, with TLS off.
    virtual int SendData(const void* data, unsigned long long length, int flags);
    /// Returns the bytes read; 0 when nothing is there now; -1 when it failed, the peer closed or
    /// there is no session. flags: of recv, with TLS off.
    virtual int RecvData(void* buffer, unsigned long long size, int flags);
    /// PEM files for a client certificate, used when all three are set; a null leaves its path.
    /// certFile is the trust file too, in place of caFile: deployed devices have one file for both.
    /// Returns 0.
    virtual int SetCertsPathName(const char* caFile, const char* certFile, const char* keyFile);

    /// The handshake fails unless the server's certificate verifies against caFile (PEM; null: the
    /// system's trust) and names hostName, a name or a numeric address (null: SetServerName's).
    /// Returns 0, or -6.
    int SetVerify(const char* hostName, const char* caFile);
    /// The host that the connection was opened to. A name, not a numeric address, is told to the
    /// server. Returns 0, or -6.
    int SetServerName(const char* host);
    /// Why the last handshake failed; "" when it did not. Borrowed until the next one.
    const char* GetReason() const;
    /// Whether bytes are decrypted already: select does not tell of those.
    bool HasDecrypted() const;

    /// Starts the TLS library; BindSsl does so too. Any thread, any number of times.
    static void InitSsl();

protected:
    /// Loads the files of SetCertsPathName. False, and freed, when one is not usable.
    bool CheckCerts();

private:
    bool FailCerts(const char* text);
    bool CreateContext();
    bool CreateSession();
    bool LoadTrust();
    bool PrepareVerify(const char* host);
    bool Connect();
    void SetReason();

    bool m_useSsl;
    [[maybe_unused]] bool m_reserved;  // true; nothing reads it
    ssl_ctx_st* m_context;
    ssl_st* m_session;
    int m_socket;  // -1: none
    bool m_bound;
    CKTString m_caPath;
    CKTString m_certPath;
    CKTString m_keyPath;
    KTSslWire* m_wire;  // between the session and the handle; owned
    bool m_verify;
    CKTString m_verifyHost;
    CKTString m_verifyCa;
    CKTString m_serverName;
    CKTString m_reason;
};

#endif
