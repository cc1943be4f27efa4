// The manifest's lookup table under a long random run of adds and removals, with hashes forced into
// few values so that runs of slots collide, wrap around the end of the table and are shifted back by
// removals; a plain multimap says what each lookup must find.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "Quiver/QVEntryIndex.hpp"

using namespace Quiver;

TEST(EntryIndex, FindsWhatAMultimapFindsThroughCollisionsWrapAroundAndRemovals) {
    std::mt19937 random(7);
    std::vector<Entry> pool;
    for (int i = 0; i < 400; ++i)
        pool.push_back(QVManifestEntryCreateForDirectory(CFSTR("D"), CF::String("p" + std::to_string(i)).get()));
    // Few hash values, a third of them at the last slots of a table of any size, so that runs wrap to
    // its start.
    auto hashOf = [](size_t i) -> uint64_t { return i % 3 == 0 ? ~uint64_t{0} - 2 : (i * 2654435761u) % 13; };
    auto index = [&](const QVManifestEntryClass& e) {
        return static_cast<size_t>(std::stoi(std::string(e.path().substr(1))));
    };
    EntryIndex table;
    std::multimap<uint64_t, size_t> reference;
    std::vector<bool> in(pool.size());
    for (int step = 0; step < 20000; ++step) {
        const size_t i = random() % pool.size();
        const uint64_t hash = hashOf(i);
        if (!in[i]) {
            ASSERT_TRUE(table.insert(hash, pool[i], [&](const QVManifestEntryClass& e) { return index(e) == i; }));
            reference.emplace(hash, i);
        } else if (random() % 2) {
            // The same key again is refused while it is there.
            ASSERT_FALSE(table.insert(hash, pool[i], [&](const QVManifestEntryClass& e) { return index(e) == i; }));
            continue;
        } else {
            table.erase(hash, pool[i].get());
            for (auto it = reference.lower_bound(hash); it != reference.upper_bound(hash); ++it)
                if (it->second == i) {
                    reference.erase(it);
                    break;
                }
        }
        in[i] = !in[i];
        ASSERT_EQ(table.size(), reference.size());
        // Every entry, in or out, is found exactly when it is in.
        if (step % 97 == 0) {
            for (size_t j = 0; j < pool.size(); ++j) {
                Entry found = table.find(hashOf(j), [&](const QVManifestEntryClass& e) { return index(e) == j; });
                ASSERT_EQ(found.get(), in[j] ? pool[j].get() : nullptr) << "entry " << j << " at step " << step;
            }
        }
    }
    // Removing what is not there, or another object under the same hash, changes nothing.
    for (size_t j = 0; j < pool.size(); ++j)
        if (!in[j]) table.erase(hashOf(j), pool[j].get());
    EXPECT_EQ(table.size(), reference.size());
}
