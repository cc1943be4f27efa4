// The quiver command-line tool. For now it shows what the library's foundation does: it writes a small
// property list in both formats, reads it back, and reports an error made the library's way.
#include <CoreFoundation/CoreFoundation.h>

#include <cstdio>
#include <string>

#include "Quiver/CF/CF.hpp"
#include "Quiver/QVError.hpp"

int main(int argc, char** argv) {
    std::string command = argc > 1 ? argv[1] : "";
    CF::Dictionary info = CF::Dictionary::CreateMutable();
    info.Set("Device Name", CF::String("Sample iPhone"));
    info.Set("Product Version", CF::String("17.4"));
    info.Set("Last Backup Date", CF::Date(static_cast<double>(static_cast<int64_t>(CFAbsoluteTimeGetCurrent()))));
    info.Set("IsEncrypted", CF::Boolean(false));
    for (auto format : {kCFPropertyListXMLFormat_v1_0, kCFPropertyListBinaryFormat_v1_0}) {
        CF::Data bytes = CF::Data::Adopt(CFPropertyListCreateData(nullptr, info.get(), format, 0, nullptr));
        CF::Dictionary back = CF::Dictionary::Adopt(static_cast<CFDictionaryRef>(
            CFPropertyListCreateWithData(nullptr, bytes.get(), 0, nullptr, nullptr)));
        std::printf("%s property list: %zu bytes, reads back %s\n",
                    format == kCFPropertyListXMLFormat_v1_0 ? "XML" : "binary", bytes.size(),
                    back == info ? "equal" : "DIFFERENT");
    }
    std::printf("%s\n", CF::Describe(info.get()).c_str());
    CF::Error e = Quiver::Error(QVErrorPasswordRequired, CF::Error(), "no password was given");
    std::printf("an error as callers see it: %s (friendly: %s)\n", e.Text().c_str(), e.IsFriendly() ? "yes" : "no");
    (void)command;
    return 0;
}
