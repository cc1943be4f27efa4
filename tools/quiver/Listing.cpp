// Entry listings shared by `ls` and `find`: one place decides what a line or a JSON object of an
// entry holds, so that the two commands print the same thing and scripts can feed one's output where
// the other's went.
//
// JSON objects are put together by hand rather than through a document per entry: a listing of a few
// hundred thousand entries would otherwise cost more memory than the manifest itself.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <future>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Tool.hpp"

using nlohmann::json;

namespace QuiverTool {

namespace {

constexpr size_t kChunk = 65536;

// Names rarely need escaping, so the JSON library is asked only for those that do.
void AppendJsonString(std::string& out, std::string_view text) {
    const bool plain = std::none_of(text.begin(), text.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return c == '"' || c == '\\' || u < 0x20 || u >= 0x80;
    });
    if (!plain) {
        out += JsonString(text);
        return;
    }
    out += '"';
    out += text;
    out += '"';
}

template <class Number>
void AppendNumber(std::string& out, Number value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

// One entry as a JSON object, keys in alphabetical order: indented inside an array, or on one line.
// Written with plain appends: a listing of a million entries is mostly this function.
void AppendEntryJson(std::string& out, const quiver::Entry& e, bool oneLine) {
    const std::string_view indent = oneLine ? "" : "    ";
    const std::string_view next = oneLine ? ", " : ",\n";
    auto key = [&](std::string_view name) {
        out += indent;
        out += '"';
        out += name;
        out += "\": ";
    };
    auto number = [&](std::string_view name, auto value) {
        key(name);
        AppendNumber(out, value);
        out += next;
    };
    out += oneLine ? "{" : "  {\n";
    key("domain");
    AppendJsonString(out, e.domain());
    out += next;
    key("fileID");
    AppendJsonString(out, e.fileID());
    out += next;
    number("gid", e.gid());
    number("mode", e.mode());
    number("mtime", EntryModifiedUnixTime(e));
    key("path");
    AppendJsonString(out, e.path());
    out += next;
    number("protectionClass", static_cast<uint32_t>(e.protectionClass()));
    number("size", e.isFile() ? e.size() : 0);
    key("target");
    if (e.isSymlink()) {
        AppendJsonString(out, e.target());
    } else {
        out += "null";
    }
    out += next;
    key("type");
    out += '"';
    out += EntryTypeName(e);
    out += '"';
    out += next;
    key("uid");
    AppendNumber(out, e.uid());
    out += oneLine ? "}" : "\n  }";
}

}  // namespace

std::string JsonString(std::string_view text) {
    return json(std::string(text)).dump(-1, ' ', false, json::error_handler_t::replace);
}

ListingFormat ListingFormatOf(bool json, bool jsonLines, bool longFormat) {
    if (json && jsonLines) throw Failure(kUsage, "give --json or --jsonl, not both");
    if (json) return ListingFormat::Json;
    if (jsonLines) return ListingFormat::JsonLines;
    return longFormat ? ListingFormat::Long : ListingFormat::Names;
}

void EntryListing::Add(const quiver::Entry& e) {
    Append(e);
    Flush(kChunk);
}

void EntryListing::AddAll(std::span<const quiver::Entry> entries) {
    // Making the JSON objects is most of the work of a long listing: batches alternate between this
    // thread and a second, and go out in order, so memory stays two batches whatever the length. The
    // other formats read the time zone, which is not to be read from two threads at once.
    constexpr size_t kBatch = 4096;
    const bool json = format_ == ListingFormat::Json || format_ == ListingFormat::JsonLines;
    size_t at = 0;
    while (json && entries.size() - at >= 2 * kBatch) {
        EntryListing second(format_, local_);
        second.count_ = count_ + kBatch;
        const std::span<const quiver::Entry> theirs = entries.subspan(at + kBatch, kBatch);
        std::future<void> other = std::async(std::launch::async, [&second, theirs] {
            for (const quiver::Entry& e : theirs) second.Append(e);
        });
        for (const quiver::Entry& e : entries.subspan(at, kBatch)) Append(e);
        other.get();
        Flush(0);
        WriteAll(STDOUT_FILENO, second.text_);
        count_ = second.count_;
        at += 2 * kBatch;
    }
    for (const quiver::Entry& e : entries.subspan(at)) Add(e);
}

void EntryListing::Append(const quiver::Entry& e) {
    switch (format_) {
        case ListingFormat::Json:
            text_ += count_ == 0 ? "[\n" : ",\n";
            AppendEntryJson(text_, e, false);
            break;
        case ListingFormat::JsonLines:
            AppendEntryJson(text_, e, true);
            text_ += '\n';
            break;
        case ListingFormat::Names:
        case ListingFormat::Long: {
            // Names come from the backup: control characters are shown escaped, never sent to the terminal.
            std::string name = Printable(e.path());
            const std::string domain = Printable(e.domain());
            if (e.isDirectory()) name += "/";
            if (format_ == ListingFormat::Long) {
                fmt::format_to(std::back_inserter(text_), "{} {:>5} {:>5} {:>10} {}  {}\t{}", ModeString(e.mode()), e.uid(),
                               e.gid(), e.isFile() ? e.size() : 0, LabelledTimeText(EntryModifiedUnixTime(e), local_),
                               domain, name);
                if (e.isSymlink()) text_ += " -> " + Printable(e.target());
            } else {
                fmt::format_to(std::back_inserter(text_), "{}\t{}", domain, name);
            }
            text_ += '\n';
            break;
        }
    }
    ++count_;
}

void EntryListing::Flush(size_t atLeast) {
    if (text_.size() < atLeast) return;
    WriteAll(STDOUT_FILENO, text_);
    text_.clear();
}

void EntryListing::Finish() {
    if (format_ == ListingFormat::Json) text_ += count_ == 0 ? "[]\n" : "\n]\n";
    Flush(0);
}

}  // namespace QuiverTool
