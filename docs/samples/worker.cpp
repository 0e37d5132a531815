#include <KTBase/KTBase.h>

#include <cstdio>

constexpr unsigned int kAdd = 1000;  // a command of ours: the library's own are below 1000

class Account : public CKTObject {
public:
    explicit Account(const char* name) : m_name(name) {}

    // Always on the same thread of the pool, so nothing here needs a lock.
    int OnWork(CKTMessageT* msg, unsigned int /*nowMS*/, unsigned int& waitMS) {
        if (msg == nullptr) {
            waitMS = 1000;  // the beat: nothing to do, come again in a second
        } else if (msg->Command() == kAdd) {
            m_sum += *static_cast<int*>(msg->Param1());
            if (m_sum == 60)
                m_done.Set();
        }
        return 0;
    }

    void Finish() {
        m_done.Wait(KT_INFINITE);
        std::printf("%s: %d\n", m_name, m_sum);
    }

private:
    const char* m_name;
    int m_sum = 0;
    CKTEvent m_done;
};

int main() {
    const KTWorkerHandler handler = static_cast<KTWorkerHandler>(&Account::OnWork);
    Account first("first"), second("second");
    Account* const accounts[] = {&first, &second};
    int amounts[] = {10, 20, 30};

    CKTThreadPoolEx pool(2, "accounts", 0, 25);
    for (Account* account : accounts) {
        if (pool.Attach(account, handler) != 0)
            return 1;
        for (int& amount : amounts)
            pool.PostPoolMessage(account, kAdd, &amount);
    }
    for (Account* account : accounts) {
        account->Finish();
        pool.Detach(account, handler);  // waits for the handler: now the account may go
    }
    return 0;
}
