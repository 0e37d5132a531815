// JSON trees: parsed from text and files, read and changed by name and index, written back, and
// records that describe their fields once for reading and writing.
#ifndef KTBASE_KTJSON_H
#define KTBASE_KTJSON_H

#include <cstddef>
#include <new>
#include <type_traits>

#include "KTBase/KTDefs.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"

/// What a node is.
enum KTJsonType : int {
    KT_JSON_NULL = 0,
    KT_JSON_BOOL = 1,
    KT_JSON_INTEGER = 2,  ///< from -2^63 to 2^64 - 1, exact
    KT_JSON_DOUBLE = 3,
    KT_JSON_TEXT = 4,
    KT_JSON_ARRAY = 5,
    KT_JSON_OBJECT = 6,
};

/// Levels of arrays and objects in one another, at most.
constexpr unsigned int KT_JSON_LEVELS = 256;

/// Value of a JSON tree, with all below it: null at first, an object, an array or a plain value.
/// Nodes are values: Get hands out copies, Set takes copies in, and no node points into another.
/// Belongs to one thread at a time.
///
/// Text is read as RFC 8259 has it, and nothing more. A byte order mark is skipped. Malformed are,
/// beside what the grammar rules out: invalid UTF-8 and surrogates without their other half; a name
/// that an object has already or that has a NUL in it; a number that a double cannot hold (1e400,
/// 1e-400), while integers beyond 64 bits become doubles; more than KT_JSON_LEVELS levels; and
/// anything but white space behind the value. Text keeps its NULs ("\u0000").
///
/// Members are kept and written in the order of their names' bytes.
///
/// Where nothing else is said a call returns 0 or
/// -4: a null text, name or path;
/// -6: no memory;
/// -7: a member is set in what is neither an object nor null, an item in what is no array nor null;
/// -10: JSON has no way to write this: not a finite number, text that is not UTF-8, a name with a
///      NUL, more than KT_JSON_LEVELS levels;
/// -11: there is no such member or item, or it is null where a value is asked for;
/// -15: malformed text; a value of another type, or one that the variable cannot hold.
/// After a failure nothing has changed.
class KTBASE_API IKTJsonNode : public IKTBaseOBJ {
public:
    IKTJsonNode();
    IKTJsonNode(const IKTJsonNode&) = delete;
    IKTJsonNode& operator=(const IKTJsonNode&) = delete;
    ~IKTJsonNode() override;

    /// A copy, which the caller deletes; null without memory.
    IKTJsonNode* Clone() const;
    /// Exchanges the values of two nodes.
    void Swap(IKTJsonNode& other);

    // ---- parsing and writing ----

    /// Replaces the node by what len bytes of text say; 0: up to the NUL.
    int Parse(const char* text, std::size_t len);
    /// Parses a text file. Also -1 when it cannot be read; -11 when the path leads nowhere.
    int Load(const char* path);
    /// Appends the node as text: in one line, or with a member or item in each line and a tab for
    /// each level. All doubles get as many digits, 15 to 17, as the neediest of them needs to be
    /// read back the same. -6 when out cannot grow.
    int ToString(CKTString& out, bool indented) const;
    /// Writes a text file, a new one with the access rights of new files. It replaces an older one
    /// when it is complete and on the medium, so that a power failure leaves either; until then it
    /// is path with ".new" behind it. Also the codes of IKWFile: -8 when the medium is full, -11
    /// without the folder, -1.
    int Save(const char* path, bool indented) const;

    // ---- what the node is ----

    KTJsonType GetType() const;
    /// Members of an object or items of an array, else 0.
    unsigned int GetCount() const;
    void Clear();      ///< makes it null
    int MakeArray();   ///< makes it an empty array
    int MakeObject();  ///< makes it an empty object

    // ---- values ----
    // T is bool, an integer type but char, double, CKTString or IKTJsonNode, and for setting text
    // const char*, too, and float.
    // An integer is also read from a double without fraction, and a double from an integer, to the
    // nearest. A number that T cannot hold is not read: -15.

    /// Of the node itself.
    template <typename T>
    int Get(T& value) const {
        return Read(Find(), value);
    }
    template <typename T>
    int Set(const T& value) {
        return Write(value);
    }

    /// Of a member. Set adds it or replaces it, and makes an object of null.
    template <typename T>
    int Get(const char* name, T& value) const {
        return name != nullptr ? Read(Find(name), value) : KT_ARGUMENT;
    }
    template <typename T>
    int Set(const char* name, const T& value) {
        IKTJsonNode item;
        const int result = item.Write(value);
        return result == KT_OK ? Put(name, item) : result;
    }
    bool Has(const char* name) const;
    int Remove(const char* name);

    /// Of an item, from 0. SetAt replaces one that there is. Append makes an array of null.
    template <typename T>
    int GetAt(unsigned int index, T& value) const {
        return Read(FindAt(index), value);
    }
    template <typename T>
    int SetAt(unsigned int index, const T& value) {
        IKTJsonNode item;
        const int result = item.Write(value);
        return result == KT_OK ? PutAt(index, item) : result;
    }
    template <typename T>
    int Append(const T& value) {
        IKTJsonNode item;
        const int result = item.Write(value);
        return result == KT_OK ? PutAtEnd(item) : result;
    }
    int RemoveAt(unsigned int index);

    /// Walk the members, or the items, whose name is empty. -11 at the end; GetNext also gives -7
    /// when the node has been changed since, or no walk was begun. value may be the node itself:
    /// that ends the walk.
    int GetFirst(CKTString& name, IKTJsonNode& value) const;
    int GetNext(CKTString& name, IKTJsonNode& value) const;

    // ---- records ----

    /// Sets the member from value (save), or gets value from it. One function so serves both
    /// reading and writing of a record:
    ///
    ///     int Camera::Exchange(bool save, IKTJsonNode& node) {
    ///         node.Exchange(save, "name", m_name);          // CKTString
    ///         node.Exchange(save, "port", m_port);          // unsigned short
    ///         node.Exchange(save, "streams", m_streams);    // CKTListP<Stream>
    ///         return node.GetExchangeResult();
    ///     }
    ///
    /// T is what Get takes, a record with such a member Exchange, or a list: CKTListP of records,
    /// or a sequence of the language, such as std::vector, of any of these (but no vector<bool>).
    /// A member that is missing or null leaves value as it was: -11. Of a record that fails, the
    /// fields before the failure may have been read; of a list, all items are read or none. Saving
    /// a record into a member that is an object keeps what that has beside the record's fields.
    template <typename T>
    int Exchange(bool save, const char* name, T& value) {
        const int result = save ? StoreMember(name, value) : FetchMember(name, value);
        if (m_exchangeResult == KT_OK && result != KT_NOT_FOUND)
            m_exchangeResult = result;
        return result;
    }
    /// The first failure of Exchange, -11 apart, since the node was made, parsed, loaded or
    /// cleared.
    int GetExchangeResult() const;

private:
    // A place in this tree; null when there is none.
    typedef const void* Place;

    template <typename T>
    struct IsInteger : std::integral_constant<bool, std::is_integral<T>::value &&
                                                        !std::is_same<T, bool>::value &&
                                                        !std::is_same<T, char>::value> {};
    template <typename T>
    struct IsValue
        : std::integral_constant<bool, std::is_same<T, bool>::value ||
                                           std::is_same<T, double>::value || IsInteger<T>::value ||
                                           std::is_base_of<CKTString, T>::value ||
                                           std::is_base_of<IKTJsonNode, T>::value> {};
    template <typename T, typename = void>
    struct IsContainer : std::false_type {};
    template <typename T>
    struct IsContainer<T, std::void_t<typename T::value_type, typename T::iterator>>
        : std::true_type {};
    template <typename T>
    struct IsPointerList : std::false_type {};
    template <typename T>
    struct IsPointerList<CKTListP<T>> : std::true_type {};
    template <typename T>
    struct IsRecord : std::integral_constant<bool, !IsValue<T>::value && !IsContainer<T>::value &&
                                                       !IsPointerList<T>::value> {};
    template <typename T>
    struct Widest {
        typedef
            typename std::conditional<std::is_signed<T>::value, long long, unsigned long long>::type
                type;
    };

    Place Find() const;
    Place Find(const char* name) const;
    Place FindAt(unsigned int index) const;
    int Put(const char* name, IKTJsonNode& item);  // moves the item, as the next two
    int PutAt(unsigned int index, IKTJsonNode& item);
    int PutAtEnd(IKTJsonNode& item);
    template <typename... Parts>
    int Assign(Parts&&... parts);

    static int Read(Place place, bool& value);
    static int Read(Place place, long long& value);
    static int Read(Place place, unsigned long long& value);
    static int Read(Place place, double& value);
    static int Read(Place place, CKTString& value);
    static int Read(Place place, IKTJsonNode& value);
    template <typename T>
    static typename std::enable_if<IsInteger<T>::value, int>::type Read(Place place, T& value) {
        typename Widest<T>::type wide = 0;
        const int result = Read(place, wide);
        if (result != KT_OK)
            return result;
        if (static_cast<typename Widest<T>::type>(static_cast<T>(wide)) != wide)
            return KT_MALFORMED;
        value = static_cast<T>(wide);
        return KT_OK;
    }

    int Write(bool value);
    int Write(long long value);
    int Write(unsigned long long value);
    int Write(double value);
    int Write(const char* value);
    int Write(const CKTString& value);
    int Write(const IKTJsonNode& value);
    int Write(const void* value) = delete;  // else taken for a bool
    template <typename T>
    typename std::enable_if<IsInteger<T>::value, int>::type Write(T value) {
        return Write(static_cast<typename Widest<T>::type>(value));
    }

    template <typename T>
    int StoreMember(const char* name, T& value) {
        IKTJsonNode item;
        if constexpr (IsRecord<T>::value) {
            // What the member has beside the record's fields stays.
            const int found = Get(name, item);
            if (found != KT_OK && found != KT_NOT_FOUND)
                return found;
        }
        const int result = item.Store(value);
        return result == KT_OK ? Put(name, item) : result;
    }
    template <typename T>
    int FetchMember(const char* name, T& value) const {
        if (GetType() != KT_JSON_OBJECT && GetType() != KT_JSON_NULL)
            return KT_MALFORMED;
        return name != nullptr ? FetchFrom(Find(name), value) : KT_ARGUMENT;
    }

    /// Makes this node what value is.
    template <typename T>
    int Store(T& value) {
        if constexpr (IsValue<T>::value) {
            return Write(value);
        } else if constexpr (IsPointerList<T>::value) {
            return StorePointers(value);
        } else if constexpr (IsContainer<T>::value) {
            return StoreContainer(value);
        } else {
            const int result = GetType() == KT_JSON_OBJECT ? KT_OK : MakeObject();
            return result == KT_OK ? value.Exchange(true, *this) : result;
        }
    }
    template <typename T>
    int StoreItem(T& value) {
        IKTJsonNode item;
        const int result = item.Store(value);
        return result == KT_OK ? PutAtEnd(item) : result;
    }
    template <typename List>
    int StoreContainer(List& list) {
        int result = MakeArray();
        for (auto item = list.begin(); result == KT_OK && item != list.end(); ++item)
            result = StoreItem(*item);
        return result;
    }
    template <typename T>
    int StorePointers(CKTListP<T>& list) {
        int result = MakeArray();
        T* item = nullptr;
        for (void* pos = list.FindIndex(0); result == KT_OK && pos != nullptr;
             pos = list.GetNext(pos)) {
            list.GetAt(pos, item);
            result = item != nullptr ? StoreItem(*item) : KT_ARGUMENT;
        }
        return result;
    }

    template <typename T>
    static int FetchFrom(Place place, T& value) {
        if constexpr (IsValue<T>::value) {
            return Read(place, value);
        } else {
            IKTJsonNode item;
            const int result = Read(place, item);
            if (result != KT_OK)
                return result;
            if (item.GetType() == KT_JSON_NULL)
                return KT_NOT_FOUND;
            if (item.GetType() != (IsRecord<T>::value ? KT_JSON_OBJECT : KT_JSON_ARRAY))
                return KT_MALFORMED;
            return item.Fetch(value);
        }
    }
    template <typename T>
    int Fetch(T& value) {
        if constexpr (IsPointerList<T>::value) {
            return FetchPointers(value);
        } else if constexpr (IsContainer<T>::value) {
            return FetchContainer(value);
        } else {
            const int result = value.Exchange(false, *this);
            return result != KT_NOT_FOUND ? result : KT_OK;
        }
    }
    /// A list has no place for an item that is null.
    template <typename T>
    int FetchItem(unsigned int index, T& value) const {
        const int result = FetchFrom(FindAt(index), value);
        return result != KT_NOT_FOUND ? result : KT_MALFORMED;
    }
    template <typename List>
    int FetchContainer(List& list) const {
        try {
            List loaded(GetCount());
            unsigned int index = 0;
            for (auto& item : loaded) {
                const int result = FetchItem(index++, item);
                if (result != KT_OK)
                    return result;
            }
            list.swap(loaded);
            return KT_OK;
        } catch (const std::bad_alloc&) {
            return KT_NO_MEMORY;
        }
    }
    /// The new items come behind the old ones, and one side goes.
    template <typename T>
    int FetchPointers(CKTListP<T>& list) const {
        unsigned int old = list.GetCount();
        int result = KT_OK;
        for (unsigned int index = 0; result == KT_OK && index < GetCount(); ++index) {
            T* item = new (std::nothrow) T();
            if (item != nullptr && list.AddTail(item) != nullptr) {
                result = FetchItem(index, *item);
            } else {
                delete item;
                result = KT_NO_MEMORY;
            }
        }
        T* failed = nullptr;
        while (result != KT_OK && list.GetCount() > old && list.RemoveTail(failed) == KT_OK)
            delete failed;
        for (; result == KT_OK && old != 0; --old)
            list.Remove(list.FindIndex(0));
        return result;
    }

    // JsonCpp's value and iterator; their headers stay with the library.
    alignas(long long) unsigned char m_value[64];
    alignas(long long) mutable unsigned char m_walk[32];  // in use while m_walking
    mutable bool m_walking;
    int m_exchangeResult;
};

#endif
