// The registry's file: what comes back, what is refused, and what a failing host leaves behind.
#include "machine/boot/registry_file.h"
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
    const auto written = Open();
    ASSERT_EQ(STATUS_SUCCESS, written->CreateKey(kKey));
    for (std::size_t i = 0; i < std::size(names); ++i)
        ASSERT_EQ(STATUS_SUCCESS, written->Set(kKey, names[i], values[i % 5]));
    ASSERT_EQ(STATUS_SUCCESS, written->Flush());
    const auto registry = Open();
    for (std::size_t i = 0; i < std::size(names); ++i) {
        host::RegistryValue value;
        ASSERT_EQ(STATUS_SUCCESS, registry->Query(u"\\REGISTRY\\machine\\system\\KVR", names[i], value)) << i;
        EXPECT_TRUE(values[i % 5].type == value.type && values[i % 5].data == value.data) << i;
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

}  // namespace
