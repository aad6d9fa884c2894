#include "KTAnalytics/Segment/Client/Detail/SEGWireFormat.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "Support/TemporaryDirectory.h"

namespace kt::segment {
namespace {

TEST(SEGWireFormat, TextForms) {
    using namespace std::chrono;
    const auto when = sys_days{year{2026} / 11 / 23} + hours{21} + minutes{38} + seconds{7} + milliseconds{123};
    EXPECT_EQ(iso8601(when), "2026-11-23T21:38:07.123Z");
    EXPECT_EQ(iso8601(sys_days{year{1970} / 1 / 1} + microseconds{999}), "1970-01-01T00:00:00.000Z");

    using namespace std::literals;
    const std::pair<std::string_view, const char*> encodings[] = {
        {""sv, ""}, {"w:"sv, "dzo="}, {"wk:"sv, "d2s6"}, {"key:"sv, "a2V5Og=="}, {"\xff\x00\x80:"sv, "/wCAOg=="}};
    for (const auto& [in, out] : encodings) EXPECT_EQ(base64(in), out);

    const std::pair<const char*, const char*> urls[] = {
        {"collector.example/v1", "https://collector.example/v1/batch"},
        {"http://127.0.0.1:8080/v1/", "http://127.0.0.1:8080/v1/batch"},
        {"https://host", "https://host/batch"}};
    for (const auto& [host, url] : urls) EXPECT_EQ(batchURL(host), url);
}

TEST(SEGWireFormat, LocaleTag) {
    const struct {
        const char* lcAll;
        const char* lang;
        const char* tag;
    } cases[] = {
        {nullptr, nullptr, "en-US"},      {nullptr, "C", "en-US"},        {"POSIX", "fr_FR", "en-US"},
        {nullptr, "fr_FR.UTF-8", "fr-FR"}, {"de_AT@euro", "fr_FR", "de-AT"}, {"", "pt_BR", "pt-BR"},
        {nullptr, "sv", "sv"},
    };
    for (const auto& c : cases) EXPECT_EQ(localeTag(c.lcAll, c.lang), c.tag) << (c.lang ? c.lang : "-");
}

TEST(SEGWireFormat, TimezoneName) {
    testing::TemporaryDirectory dir;
    const auto file = (dir / "timezone").string();
    const auto link = (dir / "localtime").string();
    const auto missing = (dir / "missing").string();
    std::ofstream(file) << "America/Chicago\n";
    std::filesystem::create_symlink("/usr/share/zoneinfo/posix/Asia/Tokyo", link);
    const struct {
        const char* tz;
        std::string etcTimezone;
        std::string etcLocaltime;
        const char* name;
    } cases[] = {
        {":Europe/Paris", file, link, "Europe/Paris"},
        {"/usr/share/zoneinfo/Europe/Oslo", file, link, "Europe/Oslo"},
        {"/somewhere/else", file, link, "America/Chicago"},
        {nullptr, file, link, "America/Chicago"},
        {"", missing, link, "Asia/Tokyo"},
        {nullptr, missing, missing, "UTC"},
    };
    for (const auto& c : cases) EXPECT_EQ(timezoneName(c.tz, c.etcTimezone, c.etcLocaltime), c.name);
}

}  // namespace
}  // namespace kt::segment
