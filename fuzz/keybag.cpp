// Key bag walk, checks and unlocking: any bytes must give a key bag or an error of the key bag's own
// codes, never a crash, a hang or a read outside them. A key bag that opens must write back item for
// item and open again to the same keys.
//
// The blob chooses its own iteration counts, and a real count costs a second per input, so the
// derivation here caps both passes at a few rounds. The seeds (fuzz/corpus/keybag, written by the key
// bag corpus test) are made with counts under the cap, so they still unlock and the fuzzer starts from
// key bags that reach the unwrapping.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Error.hpp"
#include "Quiver/MB/KeyBag.hpp"
#include "Quiver/MB/ManifestEncryption.hpp"
#include "Quiver/QVError.hpp"

namespace {

constexpr uint32_t kMaxRounds = 4;

std::array<uint8_t, 32> CappedDerivation(const std::vector<uint8_t>& password, MB::KeyBag::ManifestInfo info) {
    info.dpic = std::min(info.dpic, kMaxRounds);
    info.iter = std::min(info.iter, kMaxRounds);
    return MB::ManifestEncryption::GenerateKEKFromPassword(password, info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        MB::KeyBag bag(CF::Data::NoCopy({data, size}), "fuzz", CappedDerivation);
        MB::KeyBag again(bag.CopyData(), "fuzz", CappedDerivation);
        if (again.GetRaw() != bag.GetRaw() || again.GetUnlockedKeys() != bag.GetUnlockedKeys() ||
            again.GetType() != bag.GetType() || again.GetVersion() != bag.GetVersion()) {
            std::abort();
        }
    } catch (const CF::Error& e) {
        if (!e.Matches(kQVErrorDomain, QVErrorInvalidKeyBag) && !e.Matches(kQVErrorDomain, QVErrorUnlockFailed)) {
            std::abort();
        }
    }
    return 0;
}
