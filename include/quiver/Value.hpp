// A property-list value as plain C++: what Info.plist, Status.plist and Manifest.plist hold, and what
// a new backup's metadata is made of. Dictionaries keep their keys sorted, so that two equal
// dictionaries print the same.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quiver/Api.hpp"

namespace quiver {

class QUIVER_API Value {
public:
    enum class Type { Null, Boolean, Integer, Real, String, Data, Date, Array, Dictionary };

    Value() = default;  // null: what a missing key or a missing file reads as
    static Value boolean(bool value);
    static Value integer(int64_t value);
    static Value real(double value);
    static Value string(std::string value);
    static Value data(std::vector<uint8_t> bytes);
    static Value date(double unixSeconds);
    static Value array(std::vector<Value> items = {});
    static Value dictionary(std::initializer_list<std::pair<std::string, Value>> entries = {});

    Type type() const { return type_; }
    bool isNull() const { return type_ == Type::Null; }
    explicit operator bool() const { return type_ != Type::Null; }

    // Each accessor gives the value when the type is right and the fallback otherwise, so that a
    // missing or mistyped key in a device's file reads as absent rather than throwing.
    bool asBoolean(bool fallback = false) const;
    int64_t asInteger(int64_t fallback = 0) const;  // a Real is truncated
    double asReal(double fallback = 0) const;       // an Integer converts
    std::string_view asString(std::string_view fallback = {}) const;
    const std::vector<uint8_t>& asData() const;     // empty unless Data
    double asDate(double fallback = 0) const;       // Unix seconds

    // Arrays and dictionaries: the number of items, an item by position, and (dictionaries) the key at
    // a position and the value under a key (a null Value when absent).
    size_t size() const { return items_.size(); }
    const Value& operator[](size_t index) const { return items_.at(index); }
    const std::string& keyAt(size_t index) const { return keys_.at(index); }
    const Value& operator[](std::string_view key) const;
    bool contains(std::string_view key) const;

    // Building: append to an array; set a key in a dictionary (replacing what was there).
    void append(Value item);
    void set(std::string_view key, Value item);
    bool remove(std::string_view key);

    bool operator==(const Value& other) const;

    // The value as an XML property list (what `plutil -convert xml1` would show), and back; fromXML
    // also reads binary property lists. Throws quiver::Error for bytes that are no property list.
    std::string toXML() const;
    static Value fromXML(std::string_view bytes);

private:
    Type type_ = Type::Null;
    bool boolean_ = false;
    int64_t integer_ = 0;
    double real_ = 0;  // also a date's Unix seconds
    std::string text_;
    std::vector<uint8_t> bytes_;
    std::vector<std::string> keys_;  // dictionaries, sorted
    std::vector<Value> items_;       // array items, or the dictionary's values in key order
};

}  // namespace quiver
