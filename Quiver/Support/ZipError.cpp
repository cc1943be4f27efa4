#include "Quiver/Support/ZipError.hpp"

#include <minizip/unzip.h>
#include <minizip/zip.h>

#include <fmt/format.h>

#include "Quiver/CF/Dictionary.hpp"

namespace Quiver::Support {

namespace {

const char* resultName(int result) {
    switch (result) {
        case UNZ_OK: return "UNZ_OK";
        case UNZ_END_OF_LIST_OF_FILE: return "UNZ_END_OF_LIST_OF_FILE";
        case UNZ_ERRNO: return "UNZ_ERRNO";
        case UNZ_PARAMERROR: return "UNZ_PARAMERROR";
        case UNZ_BADZIPFILE: return "UNZ_BADZIPFILE";
        case UNZ_INTERNALERROR: return "UNZ_INTERNALERROR";
        case UNZ_CRCERROR: return "UNZ_CRCERROR";
        case Z_DATA_ERROR: return "Z_DATA_ERROR";
        case Z_MEM_ERROR: return "Z_MEM_ERROR";
        case Z_BUF_ERROR: return "Z_BUF_ERROR";
        default: return "unknown minizip result";
    }
}

}  // namespace

CF::Error zipCreateError(int result, std::string_view message) {
    CF::Dictionary info = CF::Dictionary::CreateMutable();
    info.Set(kCFErrorLocalizedDescriptionKey, CF::String(fmt::format("{} ({}): {}", resultName(result), result, message)));
    return CF::Error::Adopt(CFErrorCreate(kCFAllocatorDefault, CFSTR("Quiver.MinizipErrorDomain"), result, info.get()));
}

}  // namespace Quiver::Support
