// The registry's file: what comes back, what is refused, and what a failing host leaves behind.
#include "machine/boot/registry_file.h"
#include <gtest/gtest.h>
#include <map>
#include "tests/support/scratch_folder.h"

namespace {

using namespace machine;
const std::u16string kKey = u"\\Registry\\Machine\\System\\kvr";

class RegistryOnDisk : public ::testing::Test {
protected:
    std::unique_ptr<RegistryFile> Open() const {
        std::string error;
        auto registry = RegistryFile::Open(path_, error);
        EXPECT_NE(nullptr, registry) << error;
        return registry;
    }
    const TestFolder folder_;
    const std::string path_ = folder_.File("registry");
};

TEST_F(RegistryOnDisk, ValuesOfEveryShapeSurvive) {
    const std::map<std::u16string, host::RegistryValue> values = {
        {u"\\Device\\HarddiskVolume1\\kvr.CFG", {REG_BINARY, std::vector<UCHAR>(1000, 0xA5)}},
        {u"a \"quoted\" = name", {REG_BINARY, {}}},
        {u"Gr\u00FC\u00DFe \u65E5\u672C \U0001F4BE", {0xFFFFFFFF, {0x41, 0}}},
        {std::u16string(u"line\nbreak\0zero", 15), {REG_DWORD, {1, 0, 0, 0}}},
        {std::u16string(1, u'\xD800'), {REG_BINARY, {0}}}};
    const auto written = Open();
    ASSERT_EQ(STATUS_SUCCESS, written->CreateKey(kKey));
    for (const auto& [name, value] : values) ASSERT_EQ(STATUS_SUCCESS, written->Set(kKey, name, value));
    ASSERT_EQ(STATUS_SUCCESS, written->Flush());
    const auto registry = Open();
    for (const auto& [name, value] : values) {
        host::RegistryValue found;
        ASSERT_EQ(STATUS_SUCCESS, registry->Query(u"\\REGISTRY\\machine\\system\\KVR", name, found));
        EXPECT_TRUE(value.type == found.type && value.data == found.data);
    }
    EXPECT_FALSE(std::filesystem::exists(path_ + ".new"));
}

TEST_F(RegistryOnDisk, OnlyFlushedChangesReachTheFile) {
    auto registry = Open();
    ASSERT_EQ(STATUS_SUCCESS, registry->CreateKey(kKey));
    EXPECT_FALSE(std::filesystem::exists(path_));
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
