#pragma once
// JSON bodies exchanged with clients and the phone. Every record is one object
// whose keys are its field names, in declaration order. Bytes travel as Base64
// text, UUIDs as canonical upper-case text, and absent optionals are left out.
//
// A record T opts in with one function, found by argument-dependent lookup,
// that lists its fields in declaration order:
//     constexpr auto jsonFields(const T*) {
//         return std::tuple{json::field("name", &T::name), json::field("size", &T::size)};
//     }
// Text enums provide `std::span<const std::string_view> textNames(E)` (name of
// raw value i at index i); integer enums with cases 0..N-1 provide
// `std::size_t caseCount(E)`.
//
// Decoding is strict and never throws: a missing required key, a wrong type,
// an integer out of range or an unknown enum text makes get() return false.

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "common/base64.hpp"
#include "common/bytes.hpp"
#include "common/uuid.hpp"

namespace skiff::json {

using Json = nlohmann::ordered_json;
using skiff::Bytes;

// Thrown only inside encode(), which turns it into an empty result.
struct EncodeFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

template <class E>
concept TextEnum = std::is_enum_v<E> && requires(E e) {
    { textNames(e) } -> std::convertible_to<std::span<const std::string_view>>;
};

template <class E>
concept CountedEnum = std::is_enum_v<E> && requires(E e) {
    { caseCount(e) } -> std::convertible_to<std::size_t>;
};

// One entry of a record's field list: its JSON key and its member.
template <class T, class M>
struct Field {
    const char* key;
    M T::*member;
};

template <class T, class M>
constexpr Field<T, M> field(const char* key, M T::*member) {
    return {key, member};
}

template <class T>
concept Record = std::is_class_v<T> && requires(const T* p) {
    jsonFields(p);
};

template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool>;

// --- enums ---------------------------------------------------------------

template <TextEnum E>
std::string_view enumText(E value) {
    const auto names = textNames(E{});
    const auto raw = static_cast<std::size_t>(value);
    return raw < names.size() ? names[raw] : std::string_view{};
}

template <TextEnum E>
std::optional<E> enumFromText(std::string_view text) {
    const auto names = textNames(E{});
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i] == text) {
            return static_cast<E>(i);
        }
    }
    return std::nullopt;
}

template <CountedEnum E>
std::optional<E> enumFromRaw(std::int64_t raw) {
    if (raw < 0 || static_cast<std::uint64_t>(raw) >= caseCount(E{})) {
        return std::nullopt;
    }
    return static_cast<E>(raw);
}

// --- values ----------------------------------------------------------------

inline Json toJson(bool v) {
    return v;
}
inline Json toJson(const std::string& v) {
    return v;
}
inline Json toJson(const char* v) {
    return std::string(v);
}  // not the bool overload
inline Json toJson(const Bytes& v) {
    return base64::encode(v);
}
inline Json toJson(const Uuid& v) {
    return v.text();
}

// JSON has no spelling for NaN or infinity, so such a body cannot be encoded.
inline Json toJson(double v) {
    if (!std::isfinite(v)) {
        throw EncodeFailure("non-finite number");
    }
    return v;
}

template <Integer T>
Json toJson(T v) {
    return v;
}

template <TextEnum E>
Json toJson(E v) {
    return std::string(enumText(v));
}

template <CountedEnum E>
requires(!TextEnum<E>) Json toJson(E v) {
    return static_cast<std::int64_t>(v);
}

// Field helpers, defined below; declared here so records can use them.
template <class T>
void put(Json& j, const char* key, const T& value);
template <class T>
void put(Json& j, const char* key, const std::optional<T>& value);
template <class T>
bool get(const Json& j, const char* key, T& out);
template <class T>
bool get(const Json& j, const char* key, std::optional<T>& out);

template <Record T>
Json toJson(const T& v) {
    Json j = Json::object();
    std::apply([&](const auto&... f) { (put(j, f.key, v.*(f.member)), ...); },
               jsonFields(static_cast<const T*>(nullptr)));
    return j;
}

template <class T>
Json toJson(const std::vector<T>& items) requires(!std::same_as<T, std::uint8_t>) {
    Json j = Json::array();
    for (const auto& item : items) {
        j.push_back(toJson(item));
    }
    return j;
}

bool fromJson(const Json& j, bool& out);
bool fromJson(const Json& j, std::string& out);
bool fromJson(const Json& j, Bytes& out);
bool fromJson(const Json& j, Uuid& out);
bool fromJson(const Json& j, double& out);

template <Integer T>
bool fromJson(const Json& j, T& out) {
    if (j.is_number_unsigned()) {
        const auto v = j.get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) {
            return false;
        }
        out = static_cast<T>(v);
        return true;
    }
    if (j.is_number_integer()) {
        const auto v = j.get<std::int64_t>();
        if constexpr (std::is_unsigned_v<T>) {
            if (v < 0 || static_cast<std::uint64_t>(v) > std::numeric_limits<T>::max()) {
                return false;
            }
        } else {
            if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) {
                return false;
            }
        }
        out = static_cast<T>(v);
        return true;
    }
    return false;
}

template <TextEnum E>
bool fromJson(const Json& j, E& out) {
    const auto* text = j.get_ptr<const std::string*>();
    if (text == nullptr) {
        return false;
    }
    const auto value = enumFromText<E>(*text);
    if (!value) {
        return false;
    }
    out = *value;
    return true;
}

template <CountedEnum E>
requires(!TextEnum<E>) bool fromJson(const Json& j, E& out) {
    std::int64_t raw = 0;
    if (!fromJson(j, raw)) {
        return false;
    }
    const auto value = enumFromRaw<E>(raw);
    if (!value) {
        return false;
    }
    out = *value;
    return true;
}

template <Record T>
bool fromJson(const Json& j, T& out) {
    if (!j.is_object()) {
        return false;
    }
    return std::apply([&](const auto&... f) { return (get(j, f.key, out.*(f.member)) && ...); },
                      jsonFields(static_cast<const T*>(nullptr)));
}

template <class T>
bool fromJson(const Json& j, std::vector<T>& out) requires(!std::same_as<T, std::uint8_t>) {
    if (!j.is_array()) {
        return false;
    }
    std::vector<T> items;
    items.reserve(j.size());
    for (const auto& element : j) {
        T item{};
        if (!fromJson(element, item)) {
            return false;
        }
        items.push_back(std::move(item));
    }
    out = std::move(items);
    return true;
}

// --- fields ----------------------------------------------------------------

template <class T>
void put(Json& j, const char* key, const T& value) {
    j[key] = toJson(value);
}

template <class T>
void put(Json& j, const char* key, const std::optional<T>& value) {
    if (value) {
        j[key] = toJson(*value);
    }
}

template <class T>
bool get(const Json& j, const char* key, T& out) {
    const auto it = j.find(key);
    return it != j.end() && fromJson(*it, out);
}

// An absent key or null leaves the optional empty; a present value must decode.
template <class T>
bool get(const Json& j, const char* key, std::optional<T>& out) {
    const auto it = j.find(key);
    if (it == j.end() || it->is_null()) {
        out.reset();
        return true;
    }
    T value{};
    if (!fromJson(*it, value)) {
        return false;
    }
    out = std::move(value);
    return true;
}

// --- whole bodies ------------------------------------------------------------

// Parses JSON text; nullopt when the bytes are not one well-formed document.
std::optional<Json> parse(std::span<const std::uint8_t> body);

// Compact JSON text; nullopt when a string is not valid UTF-8.
std::optional<Bytes> serialize(const Json& j);

template <Record T>
std::optional<Bytes> encode(const T& value) {
    try {
        return serialize(toJson(value));
    } catch (const EncodeFailure&) {
        return std::nullopt;
    }
}

template <Record T>
std::optional<T> decode(std::span<const std::uint8_t> body) {
    const auto j = parse(body);
    T value{};
    if (!j || !fromJson(*j, value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace skiff::json
