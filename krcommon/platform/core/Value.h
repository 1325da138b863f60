#pragma once

// The object model of the platform layer. A `Value` is what a dynamically typed
// object reference carries on the mobile platform: nil, the null object, a
// boolean, an integer, a real, a string, data, a date, an array, an
// insertion-ordered dictionary with string keys, or any platform object.
// Parameter maps, response objects, statistics records, user-info maps and
// notification payloads are all Values.

#include <krcommon/platform/core/Export.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace krcommon::platform {

/// Base of every reference-counted platform object that can travel inside a
/// Value (a URL, an error, a cookie store, ...). Held by std::shared_ptr.
class KRCOMMON_EXPORT Object {
public:
    virtual ~Object();
    /// What `%@` prints for this object. Defaults to "<ClassName: 0xADDRESS>".
    [[nodiscard]] virtual std::string description() const;
    /// The demangled dynamic type name of the object.
    [[nodiscard]] std::string className() const;
};

/// The null object (NSNull): present, but standing for "no value".
struct Null {
    friend bool operator==(Null, Null) noexcept { return true; }
};

/// A point in time, as seconds since 1970-01-01 00:00:00 UTC.
struct Date {
    double timeIntervalSince1970 = 0.0;
    friend auto operator<=>(const Date&, const Date&) = default;
};

/// Raw bytes.
using Data = std::vector<std::uint8_t>;

class Value;
class Dictionary;

/// An ordered sequence of Values.
using Array = std::vector<Value>;

/// A map from string keys to Values that remembers insertion order. Setting an
/// existing key replaces its value in place. Lookups are O(1) on average: small
/// dictionaries scan, larger ones keep an open-addressing index.
class KRCOMMON_EXPORT Dictionary {
public:
    using Entry = std::pair<std::string, Value>;
    using const_iterator = std::vector<Entry>::const_iterator;

    /// Mutable iteration in insertion order. Each member reads as a (key, value) pair of
    /// references: the key read-only, since the index is built on it, the value writable.
    /// `for (auto&& [key, value] : dictionary) value = ...;` changes values in place.
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using reference = std::pair<const std::string&, Value&>;
        struct pointer {
            reference member;
            const reference* operator->() const noexcept { return &member; }
        };

        iterator() = default;
        reference operator*() const noexcept;
        pointer operator->() const noexcept { return pointer{**this}; }
        iterator& operator++() noexcept;
        iterator operator++(int) noexcept;
        friend bool operator==(const iterator&, const iterator&) = default;
        /// The same position, read-only.
        operator const_iterator() const noexcept { return position_; }

    private:
        friend class Dictionary;
        explicit iterator(std::vector<Entry>::iterator position) noexcept : position_(position) {}
        std::vector<Entry>::iterator position_;
    };

    Dictionary();
    /// The entries in the order given; a repeated key keeps its first position and its last value.
    Dictionary(std::initializer_list<Entry> entries);
    /// Takes over `entries` in their order. A key that occurs more than once keeps
    /// its first position and its last value, as a series of set() calls leaves it.
    explicit Dictionary(std::vector<Entry> entries);
    Dictionary(const Dictionary&);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(const Dictionary&);
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    [[nodiscard]] std::size_t size() const noexcept;
    [[nodiscard]] bool empty() const noexcept;

    /// The value stored under `key`, or nullptr when the key is absent.
    [[nodiscard]] const Value* find(std::string_view key) const noexcept;
    [[nodiscard]] Value* find(std::string_view key) noexcept;
    [[nodiscard]] bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
    /// The value stored under `key`, or nil when the key is absent.
    [[nodiscard]] const Value& operator[](std::string_view key) const noexcept;

    /// Stores `value` under `key`; an existing key keeps its position.
    void set(std::string key, Value value);
    /// Removes `key`; answers whether it was present. Later entries keep their order.
    bool remove(std::string_view key);
    void clear() noexcept;
    void reserve(std::size_t n);

    /// The keys in insertion order.
    [[nodiscard]] std::vector<std::string> keys() const;

    /// The entries as (key, value) pairs, in insertion order.
    [[nodiscard]] const_iterator begin() const noexcept;
    [[nodiscard]] const_iterator end() const noexcept;
    /// Iteration may change values, never keys (see `iterator`).
    [[nodiscard]] iterator begin() noexcept;
    [[nodiscard]] iterator end() noexcept;

    /// Equal when both hold the same keys with equal values, whatever the order.
    friend KRCOMMON_EXPORT bool operator==(const Dictionary& a, const Dictionary& b);

private:
    [[nodiscard]] std::ptrdiff_t slotOf(std::string_view key) const noexcept;
    void rebuildIndex();
    void indexInsert(std::uint32_t position);

    std::vector<Entry> entries_;
    std::vector<std::uint32_t> index_;  // position + 1 per slot, 0 = empty; power-of-two size
};

template <class T>
concept ObjectPointer = requires(T p) {
    { std::shared_ptr<Object>(p) };
} && !std::is_same_v<std::remove_cvref_t<T>, std::nullptr_t>;

/// A dynamically typed value; see the file comment. Copies are deep for
/// strings, data, arrays and dictionaries and shallow for platform objects.
class KRCOMMON_EXPORT Value {
public:
    enum class Kind : std::uint8_t { Nil, Null, Boolean, Integer, Real, String, Data, Date, Array, Dictionary, Object };

    Value() noexcept = default;
    Value(std::nullptr_t) noexcept {}
    Value(Null) noexcept : storage_(Null{}) {}
    Value(bool b) noexcept : storage_(b) {}
    /// Any integer type but bool and char gives an Integer (64 bits, signed). An unsigned
    /// value beyond that range gives the nearest Real instead, as the JSON reader does.
    template <class T>
        requires(std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>)
    Value(T i) noexcept : storage_(static_cast<std::int64_t>(i)) {
        if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
            if (i > static_cast<T>(INT64_MAX)) storage_ = static_cast<double>(i);
        }
    }
    Value(double d) noexcept : storage_(d) {}
    Value(float f) noexcept : storage_(static_cast<double>(f)) {}
    /// A null pointer gives nil.
    Value(const char* s) { if (s) storage_ = std::string(s); }
    Value(std::string s) noexcept : storage_(std::move(s)) {}
    Value(std::string_view s) : storage_(std::string(s)) {}
    Value(platform::Data d) noexcept : storage_(std::move(d)) {}
    Value(platform::Date d) noexcept : storage_(d) {}
    Value(platform::Array a) noexcept : storage_(std::move(a)) {}
    Value(platform::Dictionary d) noexcept : storage_(std::move(d)) {}
    /// A null object pointer gives nil.
    template <ObjectPointer P>
    Value(P object) {
        std::shared_ptr<Object> o(std::move(object));
        if (o) storage_ = std::move(o);
    }
    /// An absent optional gives nil.
    template <class T>
        requires std::constructible_from<Value, T>
    Value(std::optional<T> o) {
        if (o) *this = Value(std::move(*o));
    }

    /// What the value holds. isNil() is true for nothing at all, isNull() for the null object;
    /// each is...() tests for one kind, except isNumber().
    [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
    [[nodiscard]] bool isNil() const noexcept { return kind() == Kind::Nil; }
    [[nodiscard]] bool isNull() const noexcept { return kind() == Kind::Null; }
    [[nodiscard]] bool isBoolean() const noexcept { return kind() == Kind::Boolean; }
    /// True for booleans, integers and reals: what the platform calls a number.
    [[nodiscard]] bool isNumber() const noexcept;
    [[nodiscard]] bool isString() const noexcept { return kind() == Kind::String; }
    [[nodiscard]] bool isData() const noexcept { return kind() == Kind::Data; }
    [[nodiscard]] bool isDate() const noexcept { return kind() == Kind::Date; }
    [[nodiscard]] bool isArray() const noexcept { return kind() == Kind::Array; }
    [[nodiscard]] bool isDictionary() const noexcept { return kind() == Kind::Dictionary; }
    [[nodiscard]] bool isObject() const noexcept { return kind() == Kind::Object; }

    /// Typed access: a pointer to the payload, or nullptr when the kind differs.
    [[nodiscard]] const std::string* string() const noexcept { return std::get_if<std::string>(&storage_); }
    [[nodiscard]] const platform::Data* data() const noexcept { return std::get_if<platform::Data>(&storage_); }
    [[nodiscard]] const platform::Date* date() const noexcept { return std::get_if<platform::Date>(&storage_); }
    [[nodiscard]] const platform::Array* array() const noexcept { return std::get_if<platform::Array>(&storage_); }
    [[nodiscard]] platform::Array* array() noexcept { return std::get_if<platform::Array>(&storage_); }
    [[nodiscard]] const platform::Dictionary* dictionary() const noexcept {
        return std::get_if<platform::Dictionary>(&storage_);
    }
    [[nodiscard]] platform::Dictionary* dictionary() noexcept { return std::get_if<platform::Dictionary>(&storage_); }
    [[nodiscard]] const std::shared_ptr<Object>* object() const noexcept {
        return std::get_if<std::shared_ptr<Object>>(&storage_);
    }
    /// The platform object as `T`, or nullptr when it is absent or of another type.
    template <class T>
    [[nodiscard]] std::shared_ptr<T> objectAs() const noexcept {
        auto* o = object();
        return o ? std::dynamic_pointer_cast<T>(*o) : nullptr;
    }

    /// Numbers (booleans included) read as integers, reals or booleans; nullopt otherwise. A
    /// real reads as an integer truncated toward zero, nullopt when it is not finite or out of
    /// the 64-bit range; any non-zero number reads as true.
    [[nodiscard]] std::optional<std::int64_t> integerValue() const noexcept;
    [[nodiscard]] std::optional<double> realValue() const noexcept;
    [[nodiscard]] std::optional<bool> boolValue() const noexcept;
    /// True when this number was made from a boolean.
    [[nodiscard]] bool isBooleanNumber() const noexcept { return isBoolean(); }

    /// Dictionary member access; nil when this is not a dictionary or lacks the key.
    [[nodiscard]] const Value& operator[](std::string_view key) const noexcept;

    /// What the platform prints for `%@`: nil prints "(null)", the null object
    /// "<null>", strings as themselves, numbers as numbers, collections in the
    /// platform's indented property-list style.
    [[nodiscard]] std::string description() const;
    /// Appends the description at nesting depth `indent` (4 spaces per level).
    void appendDescription(std::string& out, int indent = 0) const;

    /// Platform equality: numbers compare by value whatever their kind,
    /// dictionaries ignore order, objects compare by identity.
    friend KRCOMMON_EXPORT bool operator==(const Value& a, const Value& b);

    /// The shared nil value, for APIs returning a reference to an absent value.
    static const Value& nil() noexcept;

private:
    std::variant<std::monostate, Null, bool, std::int64_t, double, std::string, platform::Data, platform::Date,
                 platform::Array, platform::Dictionary, std::shared_ptr<Object>>
        storage_;
};

// Dictionary members that need Value complete.
inline std::size_t Dictionary::size() const noexcept { return entries_.size(); }
inline bool Dictionary::empty() const noexcept { return entries_.empty(); }
inline Dictionary::const_iterator Dictionary::begin() const noexcept { return entries_.begin(); }
inline Dictionary::const_iterator Dictionary::end() const noexcept { return entries_.end(); }
inline Dictionary::iterator Dictionary::begin() noexcept { return iterator(entries_.begin()); }
inline Dictionary::iterator Dictionary::end() noexcept { return iterator(entries_.end()); }
inline Dictionary::iterator::reference Dictionary::iterator::operator*() const noexcept {
    return {position_->first, position_->second};
}
inline Dictionary::iterator& Dictionary::iterator::operator++() noexcept {
    ++position_;
    return *this;
}
inline Dictionary::iterator Dictionary::iterator::operator++(int) noexcept {
    iterator before = *this;
    ++position_;
    return before;
}

/// Text of a double as the platform prints a number: the shortest form that
/// reads back exactly ("0.1", "5", "1e+20").
KRCOMMON_EXPORT std::string numberDescription(double d);

}  // namespace krcommon::platform
