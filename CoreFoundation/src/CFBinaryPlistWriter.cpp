// The binary property-list writer. Writing is on the hot path of every manifest written (one keyed
// archive per entry), so it works straight from the CoreFoundation objects into one byte buffer:
// a first pass numbers the objects (strings and UIDs are shared, so the archive's repeated keys and
// class references are stored once), a second writes them, the offset table and the trailer.
#include "CFBinaryPlist.hpp"

#include <cmath>
#include <cstring>
#include <string_view>
#include <unordered_map>

namespace cf {

namespace {

constexpr size_t kMaxDepth = 512;

struct Node {
    CFTypeRef value;
    std::vector<size_t> children;  // arrays: elements; dictionaries: keys then values
};

class Writer {
public:
    bool add(CFTypeRef value, size_t depth, size_t& index, std::string& problem) {
        if (!value) {
            problem = "NULL value";
            return false;
        }
        if (depth > kMaxDepth) {
            problem = "nesting too deep";
            return false;
        }
        CFTypeID type = CFGetTypeID(value);
        if (type == CFStringGetTypeID()) {
            const std::string& text = utf8_of(static_cast<CFStringRef>(value));
            auto [it, inserted] = strings_.emplace(std::string_view(text), nodes_.size());
            if (inserted) nodes_.push_back(Node{value, {}});
            index = it->second;
            return true;
        }
        if (type == _CFKeyedArchiverUIDGetTypeID()) {
            uint32_t uid = _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value));
            auto [it, inserted] = uids_.emplace(uid, nodes_.size());
            if (inserted) nodes_.push_back(Node{value, {}});
            index = it->second;
            return true;
        }
        if (type == CFArrayGetTypeID()) {
            auto array = static_cast<CFArrayRef>(value);
            index = nodes_.size();
            nodes_.push_back(Node{value, {}});
            CFIndex n = CFArrayGetCount(array);
            std::vector<size_t> children(static_cast<size_t>(n));
            for (CFIndex i = 0; i < n; ++i)
                if (!add(CFArrayGetValueAtIndex(array, i), depth + 1, children[static_cast<size_t>(i)], problem))
                    return false;
            nodes_[index].children = std::move(children);
            return true;
        }
        if (type == CFDictionaryGetTypeID()) {
            auto dict = static_cast<CFDictionaryRef>(value);
            index = nodes_.size();
            nodes_.push_back(Node{value, {}});
            CFIndex n = CFDictionaryGetCount(dict);
            std::vector<const void*> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
            if (n > 0) CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
            std::vector<size_t> children(static_cast<size_t>(n) * 2);
            for (size_t i = 0; i < keys.size(); ++i) {
                if (!keys[i] || CFGetTypeID(keys[i]) != CFStringGetTypeID()) {
                    problem = "dictionary key is not a string";
                    return false;
                }
                if (!add(keys[i], depth + 1, children[i], problem)) return false;
            }
            for (size_t i = 0; i < values.size(); ++i)
                if (!add(values[i], depth + 1, children[keys.size() + i], problem)) return false;
            nodes_[index].children = std::move(children);
            return true;
        }
        if (type == CFDataGetTypeID() || type == CFNumberGetTypeID() || type == CFBooleanGetTypeID() ||
            type == CFDateGetTypeID()) {
            index = nodes_.size();
            nodes_.push_back(Node{value, {}});
            return true;
        }
        problem = "value of a type that property lists cannot hold";
        return false;
    }

    std::vector<UInt8> write(size_t top) {
        refSize_ = bytesFor(nodes_.size());
        out_.assign({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
        std::vector<uint64_t> offsets;
        offsets.reserve(nodes_.size());
        for (const Node& node : nodes_) {
            offsets.push_back(out_.size());
            writeObject(node);
        }
        uint64_t tableOffset = out_.size();
        uint8_t offsetSize = bytesFor(tableOffset);
        for (uint64_t offset : offsets) bigEndian(offset, offsetSize);
        out_.insert(out_.end(), 6, 0);
        out_.push_back(offsetSize);
        out_.push_back(refSize_);
        bigEndian(nodes_.size(), 8);
        bigEndian(top, 8);
        bigEndian(tableOffset, 8);
        return std::move(out_);
    }

private:
    static uint8_t bytesFor(uint64_t value) {
        if (value <= 0xFF) return 1;
        if (value <= 0xFFFF) return 2;
        if (value <= 0xFFFFFFFFULL) return 4;
        return 8;
    }

    void bigEndian(uint64_t value, size_t size) {
        for (size_t i = size; i-- > 0;) out_.push_back(static_cast<UInt8>(value >> (8 * i)));
    }

    void marker(UInt8 kind, uint64_t count) {
        if (count < 15) {
            out_.push_back(static_cast<UInt8>(kind | count));
        } else {
            out_.push_back(static_cast<UInt8>(kind | 0x0F));
            integer(static_cast<int64_t>(count));
        }
    }

    void integer(int64_t value) {
        if (value < 0) {
            out_.push_back(0x13);
            bigEndian(static_cast<uint64_t>(value), 8);
            return;
        }
        uint8_t size = bytesFor(static_cast<uint64_t>(value));
        out_.push_back(static_cast<UInt8>(0x10 | (size == 1 ? 0 : size == 2 ? 1 : size == 4 ? 2 : 3)));
        bigEndian(static_cast<uint64_t>(value), size);
    }

    void real(UInt8 kind, double value) {
        uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        out_.push_back(kind);
        bigEndian(bits, 8);
    }

    void writeObject(const Node& node) {
        CFTypeRef value = node.value;
        CFTypeID type = CFGetTypeID(value);
        if (type == CFStringGetTypeID()) {
            auto str = static_cast<CFStringRef>(value);
            const std::string& text = utf8_of(str);
            bool ascii = true;
            for (unsigned char c : text) ascii = ascii && c < 0x80;
            if (ascii) {
                marker(0x50, text.size());
                out_.insert(out_.end(), text.begin(), text.end());
            } else {
                std::u16string units;
                decode_utf8(text, units);
                marker(0x60, units.size());
                for (char16_t u : units) bigEndian(u, 2);
            }
        } else if (type == CFDataGetTypeID()) {
            auto data = static_cast<CFDataRef>(value);
            const UInt8* bytes = CFDataGetBytePtr(data);
            auto length = static_cast<size_t>(CFDataGetLength(data));
            marker(0x40, length);
            if (length > 0) out_.insert(out_.end(), bytes, bytes + length);
        } else if (type == CFBooleanGetTypeID()) {
            out_.push_back(CFBooleanGetValue(static_cast<CFBooleanRef>(value)) ? 0x09 : 0x08);
        } else if (type == CFNumberGetTypeID()) {
            auto number = static_cast<CFNumberRef>(value);
            if (CFNumberIsFloatType(number)) {
                double d = 0;
                CFNumberGetValue(number, kCFNumberFloat64Type, &d);
                real(0x23, d);
            } else {
                int64_t i = 0;
                CFNumberGetValue(number, kCFNumberSInt64Type, &i);
                integer(i);
            }
        } else if (type == CFDateGetTypeID()) {
            real(0x33, CFDateGetAbsoluteTime(static_cast<CFDateRef>(value)));
        } else if (type == _CFKeyedArchiverUIDGetTypeID()) {
            uint32_t uid = _CFKeyedArchiverUIDGetValue(static_cast<CFKeyedArchiverUIDRef>(value));
            uint8_t size = bytesFor(uid);
            out_.push_back(static_cast<UInt8>(0x80 | (size - 1)));
            bigEndian(uid, size);
        } else if (type == CFArrayGetTypeID()) {
            marker(0xA0, node.children.size());
            for (size_t child : node.children) bigEndian(child, refSize_);
        } else {  // dictionary
            marker(0xD0, node.children.size() / 2);
            for (size_t child : node.children) bigEndian(child, refSize_);
        }
    }

    std::vector<Node> nodes_;
    std::unordered_map<std::string_view, size_t> strings_;  // views of the strings being written
    std::unordered_map<uint32_t, size_t> uids_;
    std::vector<UInt8> out_;
    uint8_t refSize_ = 1;
};

}  // namespace

bool write_binary_plist(CFTypeRef root, std::vector<UInt8>& out, std::string& problem) {
    Writer writer;
    size_t top = 0;
    if (!writer.add(root, 0, top, problem)) return false;
    out = writer.write(top);
    return true;
}

}  // namespace cf
