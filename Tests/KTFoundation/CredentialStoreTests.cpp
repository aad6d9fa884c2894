#include "KTFoundation/CredentialStore.h"

#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Support/RecordingLogger.h"
#include "Support/TemporaryDirectory.h"

namespace kt {
namespace {

std::string contentsOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

mode_t permissionsOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
}

TEST(CredentialStoreTests, FileStoreKeepsTheTokenAcrossInstancesInAnOwnerOnlyFile) {
    testing::TemporaryDirectory directory;
    auto path = directory / "secrets" / "credential";
    auto logger = std::make_shared<testing::RecordingLogger>();

    FileCredentialStore store(path, logger);
    EXPECT_EQ(store.credential(), std::nullopt) << "no file yet: signed out";
    for (const char* token : {"token-1", "token-2"}) {
        store.setCredential(token);
        EXPECT_EQ(contentsOf(path), token);
        EXPECT_EQ(permissionsOf(path), 0600u);
        EXPECT_EQ(FileCredentialStore(path, logger).credential(), token);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path.parent_path()), {}), 1)
        << "no temporary files left behind";

    store.setCredential(std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(path));
    store.setCredential(std::nullopt);  // signing out twice is no error
    EXPECT_EQ(logger->count(), 0u);
}

TEST(CredentialStoreTests, FileStoreReadsAHandWrittenTokenAndRefusesHeaderBreakingOnes) {
    testing::TemporaryDirectory directory;
    auto path = directory / "credential";
    auto logger = std::make_shared<testing::RecordingLogger>();
    FileCredentialStore store(path, logger);

    std::ofstream(path) << "abc.def\n";
    EXPECT_EQ(store.credential(), "abc.def") << "a trailing line feed is not part of the token";
    std::ofstream(path) << "\n";
    EXPECT_EQ(store.credential(), std::nullopt);
    std::ofstream(path) << "abc\r\nX-Injected: 1";
    EXPECT_EQ(store.credential(), std::nullopt);
    EXPECT_EQ(logger->messages(3).size(), 1u);

    std::ofstream(path) << "good";
    store.setCredential("evil\r\nX-Injected: 1");
    EXPECT_EQ(store.credential(), "good") << "a refused token leaves the stored one alone";
    EXPECT_EQ(logger->messages(3).size(), 2u);
}

TEST(CredentialStoreTests, FileStoreReportsAFolderItCannotWriteAndThrowsNothing) {
    testing::TemporaryDirectory directory;
    std::ofstream(directory / "blocker") << "x";  // a file where the folder should be
    auto logger = std::make_shared<testing::RecordingLogger>();
    FileCredentialStore store(directory / "blocker" / "credential", logger);
    store.setCredential("token");
    EXPECT_EQ(store.credential(), std::nullopt);
    EXPECT_FALSE(logger->messages(3).empty());
}

TEST(CredentialStoreTests, InMemoryStoreIsSafeFromSeveralThreads) {
    InMemoryCredentialStore store("initial");
    EXPECT_EQ(store.credential(), "initial");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i) {
                store.setCredential("token-" + std::to_string(t));
                auto value = store.credential();
                ASSERT_TRUE(value.has_value());
                ASSERT_EQ(value->rfind("token-", 0), 0u);
            }
        });
    for (auto& thread : threads) thread.join();
    store.setCredential(std::nullopt);
    EXPECT_EQ(store.credential(), std::nullopt);
}

}  // namespace
}  // namespace kt
