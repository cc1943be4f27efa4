// quiver::Value and its passage to and from CoreFoundation property lists.
#include "quiver/Value.hpp"

#include <algorithm>

#include "Quiver/CF/CF.hpp"
#include "Quiver/Front/Front.hpp"

namespace quiver {

namespace {

const std::vector<uint8_t> kNoBytes;
const Value kNull;

// Seconds between the Unix epoch and CoreFoundation's (2001-01-01).
constexpr double kAbsoluteToUnix = 978307200.0;

}  // namespace

Value Value::boolean(bool value) {
    Value v;
    v.type_ = Type::Boolean;
    v.boolean_ = value;
    return v;
}
Value Value::integer(int64_t value) {
    Value v;
    v.type_ = Type::Integer;
    v.integer_ = value;
    return v;
}
Value Value::real(double value) {
    Value v;
    v.type_ = Type::Real;
    v.real_ = value;
    return v;
}
Value Value::string(std::string value) {
    Value v;
    v.type_ = Type::String;
    v.text_ = std::move(value);
    return v;
}
Value Value::data(std::vector<uint8_t> bytes) {
    Value v;
    v.type_ = Type::Data;
    v.bytes_ = std::move(bytes);
    return v;
}
Value Value::date(double unixSeconds) {
    Value v;
    v.type_ = Type::Date;
    v.real_ = unixSeconds;
    return v;
}
Value Value::array(std::vector<Value> items) {
    Value v;
    v.type_ = Type::Array;
    v.items_ = std::move(items);
    return v;
}
Value Value::dictionary(std::initializer_list<std::pair<std::string, Value>> entries) {
    Value v;
    v.type_ = Type::Dictionary;
    for (const auto& [key, item] : entries) v.set(key, item);
    return v;
}

bool Value::asBoolean(bool fallback) const { return type_ == Type::Boolean ? boolean_ : fallback; }
int64_t Value::asInteger(int64_t fallback) const {
    if (type_ == Type::Integer) return integer_;
    if (type_ == Type::Real) return static_cast<int64_t>(real_);
    return fallback;
}
double Value::asReal(double fallback) const {
    if (type_ == Type::Real) return real_;
    if (type_ == Type::Integer) return static_cast<double>(integer_);
    return fallback;
}
std::string_view Value::asString(std::string_view fallback) const {
    return type_ == Type::String ? std::string_view(text_) : fallback;
}
const std::vector<uint8_t>& Value::asData() const { return type_ == Type::Data ? bytes_ : kNoBytes; }
double Value::asDate(double fallback) const { return type_ == Type::Date ? real_ : fallback; }

const Value& Value::operator[](std::string_view key) const {
    if (type_ != Type::Dictionary) return kNull;
    auto at = std::lower_bound(keys_.begin(), keys_.end(), key);
    return at != keys_.end() && *at == key ? items_[at - keys_.begin()] : kNull;
}

bool Value::contains(std::string_view key) const {
    return type_ == Type::Dictionary && std::binary_search(keys_.begin(), keys_.end(), key);
}

void Value::append(Value item) {
    if (type_ == Type::Null) type_ = Type::Array;
    if (type_ != Type::Array) throw front::InvalidArgumentError("append needs an array");
    items_.push_back(std::move(item));
}

void Value::set(std::string_view key, Value item) {
    if (type_ == Type::Null) type_ = Type::Dictionary;
    if (type_ != Type::Dictionary) throw front::InvalidArgumentError("set needs a dictionary");
    auto at = std::lower_bound(keys_.begin(), keys_.end(), key);
    const size_t index = at - keys_.begin();
    if (at != keys_.end() && *at == key) {
        items_[index] = std::move(item);
        return;
    }
    keys_.insert(at, std::string(key));
    items_.insert(items_.begin() + static_cast<std::ptrdiff_t>(index), std::move(item));
}

bool Value::remove(std::string_view key) {
    if (type_ != Type::Dictionary) return false;
    auto at = std::lower_bound(keys_.begin(), keys_.end(), key);
    if (at == keys_.end() || *at != key) return false;
    items_.erase(items_.begin() + (at - keys_.begin()));
    keys_.erase(at);
    return true;
}

bool Value::operator==(const Value& other) const {
    if (type_ != other.type_) return false;
    switch (type_) {
        case Type::Null: return true;
        case Type::Boolean: return boolean_ == other.boolean_;
        case Type::Integer: return integer_ == other.integer_;
        case Type::Real:
        case Type::Date: return real_ == other.real_;
        case Type::String: return text_ == other.text_;
        case Type::Data: return bytes_ == other.bytes_;
        case Type::Array:
        case Type::Dictionary: return keys_ == other.keys_ && items_ == other.items_;
    }
    return false;
}

std::string Value::toXML() const {
    front::Ref plist = front::ToPropertyList(*this);
    if (!plist) return {};
    CFErrorRef error = nullptr;
    CFDataRef data = CFPropertyListCreateData(kCFAllocatorDefault, plist.get(), kCFPropertyListXMLFormat_v1_0, 0, &error);
    if (!data) front::Throw(error);
    std::string text(reinterpret_cast<const char*>(CFDataGetBytePtr(data)), static_cast<size_t>(CFDataGetLength(data)));
    CFRelease(data);
    return text;
}

Value Value::fromXML(std::string_view bytes) {
    CF::Data data(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    CFErrorRef error = nullptr;
    CFPropertyListRef plist = CFPropertyListCreateWithData(kCFAllocatorDefault, data.get(), kCFPropertyListImmutable,
                                                           nullptr, &error);
    if (!plist) front::Throw(error);
    Value value = front::FromPropertyList(plist);
    CFRelease(plist);
    return value;
}

namespace front {

Value FromPropertyList(CFTypeRef object) {
    if (!object) return {};
    const CFTypeID type = CFGetTypeID(object);
    if (type == CFStringGetTypeID()) return Value::string(CF::String::Retain(static_cast<CFStringRef>(object)).utf8());
    if (type == CFBooleanGetTypeID()) return Value::boolean(CFBooleanGetValue(static_cast<CFBooleanRef>(object)));
    if (type == CFNumberGetTypeID()) {
        auto number = static_cast<CFNumberRef>(object);
        if (CFNumberIsFloatType(number)) {
            double value = 0;
            CFNumberGetValue(number, kCFNumberDoubleType, &value);
            return Value::real(value);
        }
        int64_t value = 0;
        CFNumberGetValue(number, kCFNumberSInt64Type, &value);
        return Value::integer(value);
    }
    if (type == CFDataGetTypeID()) {
        auto data = static_cast<CFDataRef>(object);
        const uint8_t* bytes = CFDataGetBytePtr(data);
        return Value::data(std::vector<uint8_t>(bytes, bytes + CFDataGetLength(data)));
    }
    if (type == CFDateGetTypeID())
        return Value::date(CFDateGetAbsoluteTime(static_cast<CFDateRef>(object)) + kAbsoluteToUnix);
    if (type == CFArrayGetTypeID()) {
        auto array = static_cast<CFArrayRef>(object);
        std::vector<Value> items;
        items.reserve(static_cast<size_t>(CFArrayGetCount(array)));
        for (CFIndex i = 0; i < CFArrayGetCount(array); ++i)
            items.push_back(FromPropertyList(CFArrayGetValueAtIndex(array, i)));
        return Value::array(std::move(items));
    }
    if (type == CFDictionaryGetTypeID()) {
        auto dictionary = static_cast<CFDictionaryRef>(object);
        const CFIndex count = CFDictionaryGetCount(dictionary);
        std::vector<const void*> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
        CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        Value result = Value::dictionary();
        for (CFIndex i = 0; i < count; ++i) {
            if (CFGetTypeID(keys[i]) != CFStringGetTypeID()) continue;  // property lists key by strings only
            result.set(CF::String::Retain(static_cast<CFStringRef>(keys[i])).utf8(), FromPropertyList(values[i]));
        }
        return result;
    }
    return {};  // a keyed archive's UID and the like: nothing a caller of the front reads
}

front::Ref ToPropertyList(const Value& value) {
    switch (value.type()) {
        case Value::Type::Null: return {};
        case Value::Type::Boolean: return front::Ref::Retain(value.asBoolean() ? kCFBooleanTrue : kCFBooleanFalse);
        case Value::Type::Integer: {
            int64_t n = value.asInteger();
            return front::Ref::Adopt(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &n));
        }
        case Value::Type::Real: {
            double n = value.asReal();
            return front::Ref::Adopt(CFNumberCreate(kCFAllocatorDefault, kCFNumberDoubleType, &n));
        }
        case Value::Type::String: return front::Ref::Retain(CF::String(value.asString()).get());
        case Value::Type::Data: {
            const std::vector<uint8_t>& bytes = value.asData();
            return front::Ref::Adopt(
                CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size())));
        }
        case Value::Type::Date:
            return front::Ref::Adopt(CFDateCreate(kCFAllocatorDefault, value.asDate() - kAbsoluteToUnix));
        case Value::Type::Array: {
            CFMutableArrayRef array = CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks);
            for (size_t i = 0; i < value.size(); ++i)
                if (front::Ref item = ToPropertyList(value[i])) CFArrayAppendValue(array, item.get());
            return front::Ref::Adopt(array);
        }
        case Value::Type::Dictionary: {
            CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
                kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
            for (size_t i = 0; i < value.size(); ++i)
                if (front::Ref item = ToPropertyList(value[i]))
                    CFDictionarySetValue(dictionary, CF::String(value.keyAt(i)).get(), item.get());
            return front::Ref::Adopt(dictionary);
        }
    }
    return {};
}

}  // namespace front
}  // namespace quiver
