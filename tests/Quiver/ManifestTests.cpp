// The manifest's queries and indexes.
#include <gtest/gtest.h>

#include <random>

#include "Quiver/QVManifest.hpp"
#include "support/TemporaryPath.hpp"

using namespace Quiver;

namespace {

std::string text(CFStringRef s) { return CF::String::Retain(s).utf8(); }

Entry dir(const char* domain, const char* path) {
    return QVManifestEntryCreateForDirectory(CF::String(domain).get(), CF::String(path).get());
}

std::vector<std::string> paths(const std::vector<Entry>& entries) {
    std::vector<std::string> out;
    for (const Entry& e : entries) out.push_back(text(QVManifestEntryGetPath(e)));
    return out;
}

class ManifestTest : public ::testing::Test {
protected:
    void SetUp() override {
        QuiverTest::UseTestTemporaryPath();
        manifest = QVManifestCreateEmpty();
        auto file = QVFileCreateFromData(std::vector<uint8_t>(10, 'x'), nullptr);
        QVManifestUpdateEntries(manifest, {
            dir("HomeDomain", "Library"),
            dir("HomeDomain", "Library/Caches"),
            QVManifestEntryCreateForFile(file, CFSTR("HomeDomain"), CFSTR("Library/Caches/x"), nullptr, nullptr),
            dir("HomeDomain", "LibraryX"),
            dir("HomeDomain", "Library/Pref"),
            QVManifestEntryCreateForSymlink(CFSTR("AppDomain-com.example"), CFSTR("link"), CFSTR("t")),
            dir("", "orphan"),
            dir("CameraRollDomain", "Media"),
        });
    }
    Manifest manifest;
};

}  // namespace

TEST_F(ManifestTest, PathQueriesMatchWholeComponentsAndDomainsListOnlyNamedOnes) {
    EXPECT_EQ(paths(QVManifestCopyEntriesAtPath(manifest, CFSTR("HomeDomain"), CFSTR("Library"))),
              (std::vector<std::string>{"Library", "Library/Caches", "Library/Caches/x", "Library/Pref"}));
    EXPECT_EQ(paths(QVManifestCopyEntriesAtPath(manifest, CFSTR("HomeDomain"), CFSTR("Library/Pref"))),
              (std::vector<std::string>{"Library/Pref"}));
    EXPECT_EQ(QVManifestCopyEntriesAtPath(manifest, CFSTR("HomeDomain"), CFSTR("")).size(), 5u);
    EXPECT_TRUE(QVManifestCopyEntriesAtPath(manifest, CFSTR("HomeDomain"), CFSTR("Library/")).empty());
    EXPECT_TRUE(QVManifestCopyEntriesAtPath(manifest, CFSTR("NoDomain"), CFSTR("")).empty());
    EXPECT_TRUE(QVManifestGetEntryMatchingPath(manifest, CFSTR("HomeDomain"), CFSTR("Library/Caches")));
    EXPECT_FALSE(QVManifestGetEntryMatchingPath(manifest, CFSTR("HomeDomain"), CFSTR("library/caches")));
    // Entries without a domain are listed nowhere.
    EXPECT_EQ(QVManifestGetEntries(manifest).size(), 8u);
    CF::Array domains = CF::Array::Adopt(QVManifestCopyDomainsList(manifest));
    std::vector<std::string> names;
    for (CFTypeRef d : domains) names.push_back(text(static_cast<CFStringRef>(d)));
    EXPECT_EQ(names, (std::vector<std::string>{"AppDomain-com.example", "CameraRollDomain", "HomeDomain"}));
    EXPECT_TRUE(QVManifestCopyEntriesInDomain(manifest, CFSTR("")).empty());
}

TEST_F(ManifestTest, FileIDListSkipsDirectoriesAndSymlinksLookupFindsThemAndTheFirstWithAnIDWins) {
    ASSERT_EQ(CFArrayGetCount(QVManifestGetFileIDs(manifest)), 1);
    Entry link = QVManifestGetEntryMatchingPath(manifest, CFSTR("AppDomain-com.example"), CFSTR("link"));
    EXPECT_EQ(QVManifestGetEntryForFileID(manifest, QVManifestEntryGetFileID(link)), link);
    Entry first = dir("D", "same"), second = dir("D", "same");
    QVManifestUpdateEntries(manifest, {first, second});
    EXPECT_EQ(QVManifestGetEntryForFileID(manifest, QVManifestEntryGetFileID(second)), first);
}

// Edits in place keep every lookup as a rebuild from the same entries would make it: a random run of
// additions and removals (duplicate file IDs and paths among them) is checked against a fresh manifest
// after every step.
TEST_F(ManifestTest, EditsInPlaceAnswerEveryLookupAsARebuildWould) {
    std::mt19937 rng(5);
    auto file = QVFileCreateFromData(std::vector<uint8_t>(7, 'y'), nullptr);
    const char* domains[] = {"HomeDomain", "CameraRollDomain", "AppDomain-com.example"};
    std::vector<Entry> model = QVManifestGetEntries(manifest);
    for (int step = 0; step < 300; ++step) {
        SCOPED_TRACE(step);
        const CF::String domain(domains[rng() % 3]);
        const CF::String path("p" + std::to_string(rng() % 40));
        // Every few steps, look things up first so that the edits meet built indexes.
        if (step % 3 == 0) {
            QVManifestGetEntryForFileID(manifest, CFSTR("0"));
            QVManifestGetEntryMatchingPath(manifest, domain.get(), path.get());
            QVManifestCopyEntriesInDomain(manifest, domain.get());
        }
        if (rng() % 3 != 0 || model.empty()) {
            Entry added = rng() % 2 ? dir(domain.utf8().c_str(), path.utf8().c_str())
                                    : QVManifestEntryCreateForFile(file, domain.get(), path.get(), nullptr, nullptr);
            QVManifestAddEntries(manifest, {added});
            model.push_back(added);
        } else {
            std::vector<Entry> removed = {model[rng() % model.size()], model[rng() % model.size()]};
            QVManifestRemoveEntries(manifest, removed);
            std::erase_if(model, [&](const Entry& e) { return e == removed[0] || e == removed[1]; });
        }
        Manifest fresh = QVManifestCreateEmpty();
        QVManifestUpdateEntries(fresh, model);
        ASSERT_EQ(QVManifestGetEntries(manifest).size(), model.size());
        EXPECT_EQ(QVManifestGetTotalFileCount(manifest), QVManifestGetTotalFileCount(fresh));
        EXPECT_EQ(QVManifestGetTotalFileSize(manifest), QVManifestGetTotalFileSize(fresh));
        EXPECT_EQ(CFArrayGetCount(QVManifestGetFileIDs(manifest)), CFArrayGetCount(QVManifestGetFileIDs(fresh)));
        for (const char* d : domains) {
            const CF::String dd(d);
            EXPECT_EQ(QVManifestCopyEntriesInDomain(manifest, dd.get()).size(),
                      QVManifestCopyEntriesInDomain(fresh, dd.get()).size());
            for (int p = 0; p < 40; ++p) {
                const CF::String pp("p" + std::to_string(p));
                Entry a = QVManifestGetEntryMatchingPath(manifest, dd.get(), pp.get());
                Entry b = QVManifestGetEntryMatchingPath(fresh, dd.get(), pp.get());
                // With two entries of one path, either may answer; both must exist or neither.
                EXPECT_EQ(a == nullptr, b == nullptr) << d << " p" << p;
                CF::String id = CF::String::Adopt(QVManifestEntryCopyFileIDForPath(dd.get(), pp.get()));
                EXPECT_EQ(QVManifestGetEntryForFileID(manifest, id.get()) == nullptr,
                          QVManifestGetEntryForFileID(fresh, id.get()) == nullptr);
            }
        }
        if (testing::Test::HasFailure()) break;
    }
}
