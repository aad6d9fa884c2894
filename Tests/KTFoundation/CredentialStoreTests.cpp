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

TEST(CredentialStoreTests, FileStoreKeepsTheTokenInAnOwnerOnlyFileAndRefusesHeaderBreakingOnes) {
    testing::TemporaryDirectory directory;
    auto path = directory / "secrets" / "credential";
    auto logger = std::make_shared<testing::RecordingLogger>();
    FileCredentialStore store(path, logger);
    EXPECT_EQ(store.credential(), std::nullopt) << "no file yet: signed out";
    for (const char* token : {"token-1", "token-2"}) {
        store.setCredential(token);
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        EXPECT_EQ(text.str(), token);
        struct stat info {};
        ASSERT_EQ(::stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0600u);
        EXPECT_EQ(FileCredentialStore(path, logger).credential(), token);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path.parent_path()), {}), 1)
        << "no temporary files left behind";
    EXPECT_EQ(logger->count(), 0u);

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

    FileCredentialStore blocked(path / "credential", logger);  // a file where the folder should be
    blocked.setCredential("token");                            // reported, not thrown
    EXPECT_EQ(blocked.credential(), std::nullopt);
    EXPECT_GT(logger->messages(3).size(), 2u);

    const auto logged = logger->count();
    store.setCredential(std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(path));
    store.setCredential(std::nullopt);
    EXPECT_EQ(logger->count(), logged) << "signing out twice is no error";
}

TEST(CredentialStoreTests, InMemoryStoreIsSafeFromSeveralThreads) {
    InMemoryCredentialStore store("initial");
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 1000; ++i) {
                store.setCredential("token-" + std::to_string(t));
                EXPECT_EQ(store.credential().value_or("").rfind("token-", 0), 0u);
            }
        });
    threads.clear();  // joins them
    store.setCredential(std::nullopt);
    EXPECT_EQ(store.credential(), std::nullopt);
}

}  // namespace
}  // namespace kt
