// changes and restore-from-changes on a served machine whose client has worked on a protected volume.
#include <nlohmann/json.hpp>
#include "ctl_served.h"
#include "tests/machine/format_support.h"

namespace {

using namespace ctl;
using namespace ctl_test;
using nbd_test::kMiB;

class CtlChanges : public CtlServed {
protected:
    // What a virtual machine does to its disk: works on the files and writes the sectors.
    void Work(const std::function<void(machine::GuestFiles&)>& work) {
        auto client = Connect("HarddiskVolume2");
        std::vector<std::uint8_t> before(client->size);
        ASSERT_EQ(STATUS_SUCCESS, Transfer(client, nbd::Server::Action::Read, 0, before));
        format_test::TestVolume volume(before);
        work(*format_test::Mounted(format_test::kNtfs, volume).files);
        for (std::size_t at = 0; at < before.size(); at += 4096) {
            std::vector<std::uint8_t> now(&volume.bytes[at],
                                          &volume.bytes[at] + std::min<std::size_t>(4096, before.size() - at));
            if (std::memcmp(&before[at], now.data(), now.size()) == 0) continue;
            ASSERT_EQ(STATUS_SUCCESS, Transfer(client, nbd::Server::Action::Write, at, now));
        }
        server->Disconnect(std::move(client));
    }
    static std::vector<std::uint8_t> Text(const std::string& text) { return {text.begin(), text.end()}; }
};

TEST_F(CtlChanges, AreListedShownAndSaved) {
    const format_test::Bytes binary = format_test::Pattern(300000, 1);
    format_test::Bytes other = binary;
    other[123456] ^= 1;
    Work([&](machine::GuestFiles& files) {
        EXPECT_EQ(STATUS_SUCCESS, files.WriteFile(u"\\Doc.txt", Text("one\ntwo\nthree\n")));
        EXPECT_EQ(STATUS_SUCCESS, files.WriteFile(u"\\binary", binary));
        EXPECT_EQ(STATUS_SUCCESS, files.WriteFile(u"\\gone", binary));
    });
    EXPECT_NE(std::string::npos, Run({"changes", "2"}).out.find("is not protected"));
    Do({{"swap", "make", "2", "16M"}, {"enable"}, {"protect", "2"}});
    Reboot();
    EXPECT_NE(std::string::npos, Run({"changes", "2"}).out.find("0 changes"));
    Work([&](machine::GuestFiles& files) {
        EXPECT_EQ(STATUS_SUCCESS, files.WriteFile(u"\\Doc.txt", Text("one\n2\x1B[2J\nthree\n")));
        EXPECT_EQ(STATUS_SUCCESS, files.WriteAt(u"\\binary", 0, other));
        EXPECT_EQ(STATUS_SUCCESS, files.Delete(u"\\gone"));
        EXPECT_EQ(STATUS_SUCCESS, files.WriteFile(u"\\n\u00E4\u20AC w", binary));
    });
    const auto client = Connect("HarddiskVolume2");
    EXPECT_NE(std::string::npos, Run({"changes", "2"}).out.find("In use by"));
    const auto json = nlohmann::json::parse(Run({"changes", "2", "--json"}).out);
    std::map<std::string, nlohmann::json> byPath;
    for (const auto& change : json["changes"]) byPath[change["path"]] = change;
    EXPECT_EQ(4u, byPath.size()) << json.dump(1);
    EXPECT_EQ("changed", byPath["/Doc.txt"]["change"]);
    EXPECT_EQ("deleted", byPath["/gone"]["change"]);
    EXPECT_EQ("added", byPath["/n\u00E4\u20AC w"]["change"]);
    EXPECT_GE(byPath["/n\u00E4\u20AC w"]["storageBytes"].get<std::size_t>(), binary.size());
    EXPECT_LE(byPath["/binary"]["storageBytes"].get<std::size_t>(), 4096u) << "one block of it was written";
    EXPECT_EQ(json["changes"][0]["path"], "/n\u00E4\u20AC w") << "what takes most is first";

    const std::string diff = Run({"changes", "2", "--diff", "\\DOC.TXT"}).out;
    EXPECT_NE(std::string::npos, diff.find("\n-two\n+2\\x1B[2J\n")) << diff;
    EXPECT_NE(std::string::npos, Run({"changes", "2", "--diff", "binary"}).out.find("first at offset 123456"));
    EXPECT_EQ(kExitUsage, Run({"changes", "2", "--diff", "none"}).exitCode);

    const TestFolder out;
    const auto restore = [&](const std::string& file, const std::string& option = "") {
        std::vector<std::string> words = {"restore-from-changes", "2", file, out.Path()};
        if (!option.empty()) words.push_back(option);
        return Run(words).exitCode;
    };
    std::filesystem::create_symlink(out.File("victim"), out.File("binary"));
    EXPECT_EQ(kExitFailed, restore("binary")) << "a link has that name";
    EXPECT_EQ(kExitOk, restore("BINARY", "--force"));
    EXPECT_FALSE(std::filesystem::exists(out.File("victim"))) << "what a link leads to is not written";
    EXPECT_EQ(std::vector<char>(other.begin(), other.end()), TestFolder::Bytes(out.File("binary")));
    EXPECT_EQ(kExitOk, restore("n\u00E4\u20AC w"));
    EXPECT_EQ(kExitFailed, restore("n\u00E4\u20AC w")) << "nothing is overwritten";
    EXPECT_EQ(kExitUsage, restore("gone"));
    EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(out.Path()), {}))
        << "nothing is left behind";
}

}  // namespace
