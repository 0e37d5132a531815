// List templates with pooled nodes, and the node chain that every list stands on.
#ifndef KTBASE_KTLISTT_H
#define KTBASE_KTLISTT_H

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <type_traits>

#include "KTBase/KTDebug.h"
#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

/// Doubly linked nodes and the pool they come from: the storage inside a list, of no use alone.
/// Grows in blocks; gives nothing back to the heap before it is destroyed or replaced.
template <typename T>
class KTListChain {
public:
    struct LISTNode {
        LISTNode* next;
        LISTNode* prev;
        alignas(T) unsigned char storage[sizeof(T)];

        T& Item() { return *std::launder(reinterpret_cast<T*>(storage)); }
    };

    explicit KTListChain(unsigned int blockSize) : m_blockSize(blockSize) {}
    KTListChain(const KTListChain&) = delete;
    KTListChain& operator=(const KTListChain&) = delete;
    ~KTListChain() {
        if constexpr (!std::is_trivially_destructible<T>::value) {
            while (m_head != nullptr)
                Remove(m_head);
        }
        while (m_blocks != nullptr) {
            void* block = m_blocks;
            std::memcpy(&m_blocks, block, sizeof(void*));
            ZMKFree(block);
        }
    }

    /// Takes over all nodes and blocks of other, which is left empty.
    KTListChain(KTListChain&& other) noexcept
        : m_head(other.m_head),
          m_tail(other.m_tail),
          m_free(other.m_free),
          m_blocks(other.m_blocks),
          m_blockSize(other.m_blockSize),
          m_count(other.m_count) {
        other.m_head = other.m_tail = other.m_free = nullptr;
        other.m_blocks = nullptr;
        other.m_count = 0;
    }

    LISTNode* Head() const { return m_head; }
    LISTNode* Tail() const { return m_tail; }
    unsigned int Count() const { return m_count; }

    /// Null when index is out of range.
    LISTNode* At(int index) const {
        if (index < 0 || static_cast<unsigned int>(index) >= m_count)
            return nullptr;
        LISTNode* node = m_head;
        while (index-- > 0)
            node = node->next;
        return node;
    }

    LISTNode* Find(const T& item) const {
        LISTNode* node = m_head;
        while (node != nullptr && !(node->Item() == item))
            node = node->next;
        return node;
    }

    int IndexOf(const T& item) const {
        int index = 0;
        for (LISTNode* node = m_head; node != nullptr; node = node->next, ++index) {
            if (node->Item() == item)
                return index;
        }
        return -1;
    }

    /// Inserts before next, or at the tail when next is null. Null when no memory can be had.
    LISTNode* Insert(LISTNode* next, const T& item) {
        if (m_free == nullptr && !Grow())
            return nullptr;
        LISTNode* node = m_free;
        m_free = node->next;
        new (node->storage) T(item);
        node->next = next;
        node->prev = next != nullptr ? next->prev : m_tail;
        (node->prev != nullptr ? node->prev->next : m_head) = node;
        (next != nullptr ? next->prev : m_tail) = node;
        ++m_count;
        return node;
    }

    /// Unlinks node and keeps it for the next Insert.
    void Remove(LISTNode* node) {
        (node->prev != nullptr ? node->prev->next : m_head) = node->next;
        (node->next != nullptr ? node->next->prev : m_tail) = node->prev;
        node->Item().~T();
        node->next = m_free;
        m_free = node;
        --m_count;
    }

private:
    // A larger block is refused like one that the heap has no room for.
    static constexpr unsigned long long kMostBlockBytes = 0x7FFFFFFF;

    // The nodes follow the pointer that chains the blocks together.
    static_assert(alignof(T) <= alignof(void*), "nodes stand on pointer boundaries");

    bool Grow() {
        const unsigned long long bytes =
            static_cast<unsigned long long>(m_blockSize) * sizeof(LISTNode) + sizeof(void*);
        if (bytes > kMostBlockBytes)
            return false;
        unsigned char* block = ZMKMalloc(static_cast<std::size_t>(bytes));
        if (block == nullptr)
            return false;
        std::memcpy(block, &m_blocks, sizeof(void*));
        m_blocks = block;
        LISTNode* nodes = reinterpret_cast<LISTNode*>(block + sizeof(void*));
        for (unsigned int i = m_blockSize; i-- > 0;) {
            nodes[i].next = m_free;
            m_free = &nodes[i];
        }
        return m_free != nullptr;
    }

    LISTNode* m_head = nullptr;
    LISTNode* m_tail = nullptr;
    LISTNode* m_free = nullptr;
    void* m_blocks = nullptr;
    unsigned int m_blockSize;  // nodes
    unsigned int m_count = 0;
};

/// Keyword before a type's name in fault lines. No trait tells a struct from a class: a list of
/// structs says so with KTLIST_STRUCT.
template <typename T>
struct KTListKeyword {
    static constexpr const char* text = std::is_class<T>::value  ? "class "
                                        : std::is_enum<T>::value ? "enum "
                                                                 : "";
};

/// At namespace scope, before the first list of type: fault lines then say "struct type".
#define KTLIST_STRUCT(type)                            \
    template <>                                        \
    struct KTListKeyword<type> {                       \
        static constexpr const char* text = "struct "; \
    }

/// Both compilers end the signature with the argument and one bracket: "[with Named = char]".
template <typename Named>
const char* KTListSignature() {
    return __PRETTY_FUNCTION__;
}

/// Spelling of a list's item type in fault lines: "class CPacket *", "char *".
template <typename T>
class KTListTypeName {
public:
    KTListTypeName() {
        const char* name =
            std::strstr(KTListSignature<Bare>(), "Named = ") + std::strlen("Named = ");
        std::snprintf(m_text, sizeof(m_text), "%s%s%.*s%s",
                      std::is_const<Base>::value ? "const " : "", KTListKeyword<Bare>::text,
                      static_cast<int>(std::strlen(name) - 1), name,
                      std::is_pointer<T>::value ? " *" : "");
    }
    const char* Text() const { return m_text; }

private:
    typedef typename std::remove_pointer<T>::type Base;
    typedef typename std::remove_cv<Base>::type Bare;

    char m_text[192];
};

/// List of values of type T, in the library always a pointer type. Owns its nodes; what becomes of
/// the items is settled by OnDataFree. Not synchronised: the owner locks around it.
///
/// Nodes come from blocks of blockSize nodes and stay with the list; when the last item leaves, all
/// blocks go back to the heap. A position is valid until its node is removed; one of another list
/// is the caller's fault. Where no node can be had, two fault lines are printed and the position is
/// null; nothing is added and the list stays usable.
///
/// Results: 0; KT_ARGUMENT (-4) for a null position; KT_EMPTY (-9); KT_NOT_FOUND (-11). A failed
/// call leaves its item argument alone.
///
/// A derived class that overrides OnDataFree calls RemoveAll() in its own destructor: this class's
/// destructor can no longer reach the override.
template <typename T>
class CKTListT : public IKTBaseOBJ {
public:
    CKTListT() : CKTListT(0) {}
    /// blockSize: nodes per block, 0 for 16.
    explicit CKTListT(unsigned int blockSize) : m_chain(blockSize != 0 ? blockSize : 16) {}
    CKTListT(const CKTListT&) = delete;
    CKTListT& operator=(const CKTListT&) = delete;
    /// Calls RemoveAll.
    ~CKTListT() override { CKTListT::RemoveAll(); }

    /// Off at first. For overrides of OnDataFree to act upon.
    void SetAutoDel(bool autoDel) { m_autoDel = autoDel; }
    bool IsAutoDel() { return m_autoDel; }
    bool IsEmpty() const { return m_chain.Count() == 0; }
    unsigned int GetCount() const { return m_chain.Count(); }

    /// Neighbouring positions; null at the ends and for a null position. FindIndex(0) is the first.
    void* GetNext(void* pos) const { return pos != nullptr ? ToNode(pos)->next : nullptr; }
    void* GetPrev(void* pos) const { return pos != nullptr ? ToNode(pos)->prev : nullptr; }

    /// Each returns the new position.
    void* AddHead(T& item) { return NewNode(m_chain.Head(), item); }
    void* AddTail(T& item) { return NewNode(nullptr, item); }
    /// After pos; a null pos appends at the tail.
    void* InsertNext(void* pos, T& item) {
        return NewNode(pos != nullptr ? ToNode(pos)->next : nullptr, item);
    }
    /// Before pos; a null pos adds at the head.
    void* InsertPrev(void* pos, T& item) {
        return NewNode(pos != nullptr ? ToNode(pos) : m_chain.Head(), item);
    }

    int GetAt(void* pos, T& item) const { return Copy(ToNode(pos), item, KT_ARGUMENT); }
    int GetAtHead(T& item) const { return Copy(m_chain.Head(), item, KT_EMPTY); }
    int GetAtTail(T& item) const { return Copy(m_chain.Tail(), item, KT_EMPTY); }

    /// Each unlinks a node and hands its item out, without OnDataFree.
    int RemoveHead(T& item) { return Take(m_chain.Head(), item, KT_EMPTY); }
    int RemoveTail(T& item) { return Take(m_chain.Tail(), item, KT_EMPTY); }
    int RemoveAt(void* pos, T& item) { return Take(ToNode(pos), item, KT_ARGUMENT); }

    /// Unlinks the first node that holds item, without OnDataFree; KT_NOT_FOUND when absent.
    int Remove(T& item) {
        LISTNode* node = m_chain.Find(item);
        if (node == nullptr)
            return KT_NOT_FOUND;
        FreeNode(node);
        return KT_OK;
    }
    /// Unlinks pos and passes its item to OnDataFree; KT_ERROR (-1) for a null pos.
    int Remove(void* pos) {
        if (pos == nullptr)
            return KT_ERROR;
        T item(ToNode(pos)->Item());
        FreeNode(ToNode(pos));
        OnDataFree(item);  // last: it may use this list again
        return KT_OK;
    }
    /// An item that is const or a temporary would silently be taken for a position.
    template <typename U, typename = typename std::enable_if<
                              std::is_same<typename std::decay<U>::type, T>::value &&
                              !std::is_same<U, T&>::value && !std::is_same<T, void*>::value>::type>
    int Remove(U&& item) = delete;

    /// Position of the first node that holds item, or null.
    void* Find(T& item) { return m_chain.Find(item); }
    /// Position of the item at index i, or null when i is out of range.
    void* FindIndex(int i) { return m_chain.At(i); }
    /// Index of the first node that holds item, or -1.
    int GetIDX(T& item) const { return m_chain.IndexOf(item); }

    /// The item at index i, in place. Callers stay in range: beyond it a fault line is printed and
    /// the answer is a zeroed item of the calling thread, valid until its next such call.
    T& operator[](int i) const {
        LISTNode* node = m_chain.At(i);
        if (node != nullptr)
            return node->Item();
        Report("operator []", 345);
        static thread_local T none{};
        none = T();
        return none;
    }

    /// Empties the list, gives all blocks back and passes every item, from the head, to OnDataFree.
    /// What OnDataFree adds meanwhile stays. Also called, on the empty list, whenever the last item
    /// leaves.
    virtual void RemoveAll() {
        // Detached first, so that OnDataFree finds a list in order.
        KTListChain<T> removed(static_cast<KTListChain<T>&&>(m_chain));
        for (LISTNode* node = removed.Head(); node != nullptr; node = node->next) {
            T item(node->Item());
            OnDataFree(item);
        }
    }

protected:
    /// Disposes of an item that leaves through Remove(pos) or RemoveAll. item is a copy: its node
    /// is already gone. Does nothing here.
    virtual void OnDataFree(T& /*item*/) {}

private:
    typedef typename KTListChain<T>::LISTNode LISTNode;

    static LISTNode* ToNode(void* pos) { return static_cast<LISTNode*>(pos); }

    static void Report(const char* method, int line) {
        char function[256];
        std::snprintf(function, sizeof(function), "CKTListT<%s>::%s", KTListTypeName<T>().Text(),
                      method);
        KTFault("inc/core/KTBase/KTListT", function, line);
    }

    LISTNode* NewNode(LISTNode* next, T& item) {
        LISTNode* node = m_chain.Insert(next, item);
        if (node == nullptr) {
            Report("AllocFreeNode", 101);
            Report("NewNode", 79);
        }
        return node;
    }

    // Nodes must not be read any more: the last one takes all blocks along.
    void FreeNode(LISTNode* node) {
        m_chain.Remove(node);
        if (m_chain.Count() == 0)
            RemoveAll();
    }

    static int Copy(LISTNode* node, T& item, int failure) {
        if (node == nullptr)
            return failure;
        item = node->Item();
        return KT_OK;
    }

    int Take(LISTNode* node, T& item, int failure) {
        if (node == nullptr)
            return failure;
        item = node->Item();
        FreeNode(node);
        return KT_OK;
    }

    KTListChain<T> m_chain;
    bool m_autoDel = false;
};

/// List of pointers that can release what they point to, by a mode that its owner sets, in the
/// places where CKTListT calls OnDataFree, and only with auto-delete on. Both are off at first.
template <typename T>
class CKTListP : public CKTListT<T*> {
public:
    CKTListP() = default;
    explicit CKTListP(unsigned int blockSize) : CKTListT<T*>(blockSize) {}
    ~CKTListP() override { CKTListT<T*>::RemoveAll(); }

    /// 1: delete as a T, through its destructor (T needs a virtual one for items of derived types).
    /// 2: ZMKFree. Any other value leaves the item alone.
    void SetReleaseMode(unsigned int mode) { m_releaseMode = mode; }

protected:
    void OnDataFree(T*& item) override {
        if (!this->IsAutoDel())
            return;
        T* released = item;
        item = nullptr;
        if (m_releaseMode == 2) {
            ZMKFree(released);
        } else if (m_releaseMode == 1) {
            // void and types whose destructor is not public have only the other modes.
            if constexpr (std::is_destructible<T>::value)
                delete released;
        }
    }

private:
    unsigned int m_releaseMode = 0;
};

#endif
