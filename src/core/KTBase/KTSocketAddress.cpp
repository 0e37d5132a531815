#include <cstring>

#include "KTBase/KTSocket.h"
#include "KTSocketHost.h"
#include "os/KTOsNet.h"

namespace {

constexpr int kLeastLength = 16;
constexpr std::size_t kHostBytes = 1025;

unsigned short FamilyToSystem(unsigned short family) {
    return family == KT_FAMILY_IPV6 ? AF_INET6 : family;
}

bool IsKnownFamily(int family) {
    return family == KT_FAMILY_IPV4 || family == KT_FAMILY_IPV6;
}

/// Length of a system address of this family; 0 for another than IPv4 and IPv6.
int LengthOf(int systemFamily) {
    if (systemFamily == AF_INET)
        return sizeof(sockaddr_in);
    return systemFamily == AF_INET6 ? sizeof(sockaddr_in6) : 0;
}

/// Both of the same family and complete.
bool IsSameHost(const sockaddr* a, const sockaddr* b) {
    if (a->sa_family == AF_INET)
        return std::memcmp(&reinterpret_cast<const sockaddr_in*>(a)->sin_addr,
                           &reinterpret_cast<const sockaddr_in*>(b)->sin_addr,
                           sizeof(in_addr)) == 0;
    return std::memcmp(&reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr,
                       &reinterpret_cast<const sockaddr_in6*>(b)->sin6_addr, sizeof(in6_addr)) == 0;
}

template <typename SystemAddress>
const sockaddr* Plain(const SystemAddress& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

struct AddressQuery {
    CKTListOBJ* out;
    int count;
};

bool AppendAddress(void* context, const sockaddr* address, int length) {
    AddressQuery& query = *static_cast<AddressQuery*>(context);
    CKTSocketAddress* item = new CKTSocketAddress;
    if (item == nullptr)
        return false;
    if (item->SetAddress(address, length) != KT_OK || query.out->AddTail(item) == nullptr) {
        delete item;
        return false;
    }
    ++query.count;
    CKTString host;
    if (item->ToString(host, false) == KT_OK)
        KTPrintf("HostIP = %s\n", host.GetBuffer());
    return true;
}

bool StoreAddress(void* context, const sockaddr* address, int length) {
    return static_cast<CKTSocketAddress*>(context)->SetAddress(address, length) == KT_OK;
}

}  // namespace

bool KTSocketHost(const char* text, char* host, std::size_t hostSize) {
    const char* begin = text;
    std::size_t length = std::strlen(text);
    if (*text == '[') {
        ++begin;
        const char* end = std::strchr(begin, ']');
        length = end != nullptr ? static_cast<std::size_t>(end - begin) : length - 1;
    }
    if (length >= hostSize)
        return false;
    std::memcpy(host, begin, length);
    host[length] = 0;
    return true;
}

bool KTSocketHostIsLiteral(const char* host) {
    unsigned char bytes[sizeof(in6_addr)];
    return KTOsNetParse(AF_INET, host, bytes) || KTOsNetParse(AF_INET6, host, bytes);
}

// ---- construction ----

CKTSocketAddress::CKTSocketAddress() : m_length(0), m_address(nullptr) {}

CKTSocketAddress::CKTSocketAddress(unsigned short family) : CKTSocketAddress() {
    Init(family);
}

CKTSocketAddress::CKTSocketAddress(const char* text) : CKTSocketAddress() {
    FromString(text);
}

CKTSocketAddress::CKTSocketAddress(const sockaddr* address) : CKTSocketAddress() {
    *this = address;
}

CKTSocketAddress::CKTSocketAddress(const CKTSocketAddress& other)
    : IKTBaseOBJ(other), m_length(0), m_address(nullptr) {
    SetAddress(other.m_address, other.m_length);
}

CKTSocketAddress::~CKTSocketAddress() {
    Clear();
}

CKTSocketAddress& CKTSocketAddress::operator=(unsigned short family) {
    Init(family);
    return *this;
}

CKTSocketAddress& CKTSocketAddress::operator=(const char* text) {
    FromString(text);
    return *this;
}

CKTSocketAddress& CKTSocketAddress::operator=(const sockaddr* address) {
    SetAddress(address, address != nullptr ? LengthOf(address->sa_family) : 0);
    return *this;
}

CKTSocketAddress& CKTSocketAddress::operator=(const CKTSocketAddress& other) {
    SetAddress(other.m_address, other.m_length);
    return *this;
}

bool CKTSocketAddress::Init(unsigned short family) {
    sockaddr_storage address;
    std::memset(&address, 0, sizeof(address));
    address.ss_family = FamilyToSystem(family);
    const int length = LengthOf(address.ss_family);
    if (length == 0)
        return false;
    if (m_length == length) {
        std::memcpy(m_address, &address, length);
        return true;
    }
    CKTSocketAddress made;
    if (made.SetAddress(Plain(address), length) != KT_OK)
        return false;
    Clear();
    m_address = made.m_address;
    m_length = length;
    made.m_address = nullptr;
    made.m_length = 0;
    return true;
}

void CKTSocketAddress::Clear() {
    ZMKFree(m_address);
    m_address = nullptr;
    m_length = 0;
}

bool CKTSocketAddress::IsValid() const {
    return m_address != nullptr;
}

// ---- text ----

int CKTSocketAddress::FromString(const char* text) {
    char host[kHostBytes];
    sockaddr_in v4 = {};
    sockaddr_in6 v6 = {};
    // Some resolvers take an empty name, as in "[]", for this machine.
    if (text == nullptr || !KTSocketHost(text, host, sizeof(host)) || host[0] == 0) {
        Clear();
        return KT_ERROR;
    }
    if (KTOsNetParse(AF_INET, text, &v4.sin_addr)) {
        v4.sin_family = AF_INET;
        return SetAddress(Plain(v4), sizeof(v4)) == KT_OK ? KT_OK : KT_ERROR;
    }
    if (KTOsNetParse(AF_INET6, host, &v6.sin6_addr)) {
        v6.sin6_family = AF_INET6;
        return SetAddress(Plain(v6), sizeof(v6)) == KT_OK ? KT_OK : KT_ERROR;
    }
    if (!KTOsNetResolve(host, v4)) {
        Clear();
        return KT_ERROR;
    }
    return SetAddress(Plain(v4), sizeof(v4)) == KT_OK ? KT_OK : KT_ERROR;
}

int CKTSocketAddress::ToString(CKTString& out, bool withPort) const {
    char host[kHostBytes];
    if (m_address == nullptr || !KTOsNetHostText(m_address, m_length, host, sizeof(host)))
        return KT_ERROR;
    int added;
    if (!withPort)
        added = out.AppendSTR(host, 0);
    else if (m_address->sa_family == AF_INET6)
        added = out.Append("[%s]:%u", host, GetPort());
    else
        added = out.Append("%s:%u", host, GetPort());
    return added < 0 ? KT_ERROR : KT_OK;
}

// ---- access ----

unsigned short CKTSocketAddress::GetFamily() const {
    if (m_address == nullptr)
        return 0;
    return m_address->sa_family == AF_INET6 ? KT_FAMILY_IPV6 : m_address->sa_family;
}

int CKTSocketAddress::GetLength() const {
    return m_length;
}

const sockaddr* CKTSocketAddress::GetAddress() const {
    return m_address;
}

/// Of a known family and long enough for it.
bool CKTSocketAddress::IsComplete() const {
    const int needed = m_address != nullptr ? LengthOf(m_address->sa_family) : 0;
    return needed != 0 && m_length >= needed;
}

unsigned short CKTSocketAddress::GetPort() const {
    if (!IsComplete())
        return 0;
    // Both families keep the port in the same place.
    return ntohs(reinterpret_cast<const sockaddr_in*>(m_address)->sin_port);
}

int CKTSocketAddress::SetPort(unsigned short port) {
    if (!IsComplete())
        return KT_ERROR;
    reinterpret_cast<sockaddr_in*>(m_address)->sin_port = htons(port);
    return KT_OK;
}

int CKTSocketAddress::SetPortEx(unsigned short port) {
    return SetPort(port);
}

int CKTSocketAddress::SetAddress(const sockaddr* address, int length) {
    if (address == nullptr || length < kLeastLength) {
        Clear();
        return KT_ARGUMENT;
    }
    if (length == m_length) {
        std::memmove(m_address, address, length);
        return KT_OK;
    }
    // Freed last: address may point into it.
    void* copy = ZMKMalloc(length);
    if (copy != nullptr)
        std::memcpy(copy, address, length);
    Clear();
    if (copy == nullptr)
        return KT_NO_MEMORY;
    m_address = static_cast<sockaddr*>(copy);
    m_length = length;
    return KT_OK;
}

int CKTSocketAddress::SetSocketName(unsigned long long handle) {
    sockaddr_storage address;
    int length;
    if (KTOsSocketName(handle, address, length) && SetAddress(Plain(address), length) == KT_OK)
        return KT_OK;
    Clear();
    return KT_ERROR;
}

int CKTSocketAddress::SetSocketPeer(unsigned long long handle) {
    sockaddr_storage address;
    int length;
    if (KTOsSocketPeer(handle, address, length) && SetAddress(Plain(address), length) == KT_OK)
        return KT_OK;
    Clear();
    return KT_ERROR;
}

// ---- comparison ----

bool CKTSocketAddress::operator==(const CKTSocketAddress& other) const {
    return m_length == other.m_length && *this == other.m_address;
}

bool CKTSocketAddress::operator==(const sockaddr* address) const {
    return address != nullptr && IsComplete() && address->sa_family == m_address->sa_family &&
           IsSameHost(m_address, address);
}

bool CKTSocketAddress::operator==(const char* text) const {
    return *this == CKTSocketAddress(text);
}

// ---- adapters ----

int CKTSocketAddress::BindEthnet(const char* interfaceName, unsigned short family, unsigned short) {
    if (!IsKnownFamily(family))
        return KT_UNSUPPORTED;
    CKTSocketAddress found;
    if (!KTOsNetAdapter(interfaceName, FamilyToSystem(family), StoreAddress, &found) ||
        !found.IsValid())
        return KT_ERROR;
    return SetAddress(found.m_address, found.m_length) == KT_OK ? KT_OK : KT_ERROR;
}

int CKTSocketAddress::ETHListQuery(CKTListOBJ* out, int family) {
    if (!IsKnownFamily(family))
        return KT_UNSUPPORTED;
    if (out == nullptr)
        return KT_ARGUMENT;
    AddressQuery query = {out, 0};
    if (!KTOsNetAddresses(FamilyToSystem(static_cast<unsigned short>(family)), AppendAddress,
                          &query))
        return KT_ERROR;
    return query.count;
}

int CKTSocketAddress::FindEthIF(CKTSocketAddress* out, const CKTSocketAddress* address) {
    if (out == nullptr || address == nullptr || !address->IsValid())
        return KT_ARGUMENT;
    return KT_UNSUPPORTED;
}
