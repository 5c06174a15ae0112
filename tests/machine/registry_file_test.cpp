// The registry's file: what comes back, what is refused, and what a failing host leaves behind.
#include "machine/registry_file.h"
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace machine;
namespace fs = std::filesystem;
const std::u16string kKey = u"\\Registry\\Machine\\System\\kvr";

class RegistryOnDisk : public ::testing::Test {
protected:
    RegistryOnDisk() {
        char name[] = "/tmp/kvr_registry_XXXXXX";
        folder_ = mkdtemp(name);
        path_ = folder_ + "/registry.txt";
    }
    ~RegistryOnDisk() override { fs::remove_all(folder_); }
    std::unique_ptr<RegistryFile> Open() {
        std::string error;
        auto registry = RegistryFile::Open(path_, error);
        EXPECT_NE(nullptr, registry) << error;
        return registry;
    }
    std::string folder_, path_;
};

TEST_F(RegistryOnDisk, ValuesOfEveryShapeSurvive) {
    const std::u16string names[] = {u"ConfigShareRead",
                                    u"\\Device\\HarddiskVolume1\\kvr.CFG",
                                    u"a \"quoted\" = name",
                                    u"",
                                    u"Gr\u00FC\u00DFe \u65E5\u672C \U0001F4BE",
                                    std::u16string(u"line\nbreak\0zero", 15),
                                    std::u16string(1, u'\xD800')};
    std::vector<UCHAR> longData(1000);
    for (std::size_t i = 0; i < longData.size(); ++i) longData[i] = static_cast<UCHAR>(i);
    const host::RegistryValue values[] = {{REG_DWORD, {0xEF, 0xBE, 0xAD, 0xDE}},
                                          {REG_BINARY, longData},
                                          {REG_BINARY, {}},
                                          {REG_DWORD, {1, 2}},
                                          {0xFFFFFFFF, {0x41, 0}}};
    {
        auto registry = Open();
        ASSERT_EQ(STATUS_SUCCESS, registry->CreateKey(kKey));
        unsigned n = 0;
        for (const auto& name : names) {
            ASSERT_EQ(STATUS_SUCCESS, registry->Set(kKey, name, values[n++ % 5]));
        }
        ASSERT_EQ(STATUS_SUCCESS, registry->Flush());
    }
    auto registry = Open();
    unsigned n = 0;
    for (const auto& name : names) {
        host::RegistryValue value;
        ASSERT_EQ(STATUS_SUCCESS, registry->Query(u"\\REGISTRY\\machine\\system\\KVR", name, value)) << n;
        EXPECT_EQ(values[n % 5].type, value.type);
        EXPECT_EQ(values[n++ % 5].data, value.data);
    }
    EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(RegistryOnDisk, OnlyFlushedChangesReachTheFile) {
    auto registry = Open();
    ASSERT_EQ(STATUS_SUCCESS, registry->CreateKey(kKey));
    EXPECT_FALSE(fs::exists(path_));
    ASSERT_EQ(STATUS_SUCCESS, registry->Flush());
    ASSERT_EQ(STATUS_SUCCESS, registry->Set(kKey, u"A", {REG_BINARY, {1}}));
    host::RegistryValue value;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open()->Query(kKey, u"A", value));
    ASSERT_EQ(STATUS_SUCCESS, registry->Flush());
    ASSERT_EQ(STATUS_SUCCESS, registry->Delete(kKey, u"a"));
    EXPECT_EQ(STATUS_SUCCESS, Open()->Query(kKey, u"A", value));
    registry->DropUnflushed();
    EXPECT_EQ(STATUS_SUCCESS, registry->Query(kKey, u"A", value)) << "the deletion is undone as well";
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, registry->Set(u"\\Other", u"A", value));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, registry->Delete(kKey, u"B"));
    EXPECT_EQ(STATUS_OBJECT_NAME_INVALID, registry->CreateKey(u"\\bad\nkey"));
}

TEST_F(RegistryOnDisk, AFileThatCannotBeReplacedKeepsItsText) {
    auto registry = Open();
    ASSERT_EQ(STATUS_SUCCESS, registry->CreateKey(kKey));
    ASSERT_EQ(STATUS_SUCCESS, registry->Flush());
    ASSERT_EQ(STATUS_SUCCESS, registry->CreateKey(u"\\Second"));
    ASSERT_TRUE(fs::create_directory(path_ + ".new"));
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, registry->Flush());
    EXPECT_EQ(std::string::npos, Open()->Text().find("Second"));
    fs::remove(path_ + ".new");
    EXPECT_EQ(STATUS_SUCCESS, registry->Flush()) << "a failed flush is not forgotten";
    EXPECT_NE(std::string::npos, Open()->Text().find("Second"));
}

TEST_F(RegistryOnDisk, BadLinesAreNamed) {
    const std::pair<const char*, const char*> cases[] = {
        {"\"A\"=hex:01\n", "line 1: a value stands before the first key"},
        {"# c\n[]\n", "line 2: this is no key"},
        {"[\\k\n", "line 1: this is no key"},
        {"[\\k]\nA=hex:01\n", "line 2: a value begins with its name in quotes"},
        {"[\\k]\n\"A\n", "line 2: a value begins with its name in quotes"},
        {"[\\k]\n\"A\\u12\"=hex:01\n", "line 2: a value begins with its name in quotes"},
        {"[\\k]\n\"A\xFF\"=hex:01\n", "line 2: a value begins with its name in quotes"},
        {"[\\k]\n\"A\"\n", "line 2: an equals sign"},
        {"[\\k]\n\"A\"=hex:1g\n", "line 2: the data is"},
        {"[\\k]\n\"A\"=hex:01,\n", "line 2: the data is"},
        {"[\\k]\n\"A\"=hex:001\n", "line 2: the data is"},
        {"[\\k]\n\"A\"=dword:\n", "line 2: the data is"},
        {"[\\k]\n\"A\"=dword:100000000\n", "line 2: the data is"},
        {"[\\k]\n\"A\"=hex():01\n", "line 2: the data is"},
        {"[\\k]\n\"A\"=hex:01,\\\n02\n\"a\"=hex:\n", "line 4: the value stands twice"},
    };
    for (const auto& [text, why] : cases) {
        std::ofstream(path_) << text;
        std::string error;
        EXPECT_EQ(nullptr, RegistryFile::Open(path_, error)) << text;
        EXPECT_NE(std::string::npos, error.find(why)) << text << " gave " << error;
        EXPECT_NE(std::string::npos, error.find(path_));
    }
    std::ofstream(path_) << "\r\n  [\\k]  \r\n\t\"A\"=hex:0a,\\\r\n  0B\r\n";
    host::RegistryValue value;
    EXPECT_EQ(STATUS_SUCCESS, Open()->Query(u"\\K", u"a", value));
    EXPECT_EQ((std::vector<UCHAR>{10, 11}), value.data);
}

}  // namespace
