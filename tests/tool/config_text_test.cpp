#include <gtest/gtest.h>
#include <stdexcept>
#include "tool/config_text.h"

namespace {

using namespace tool;

FixedVolumeSection Section(std::u16string id, BootMode mode = BootMode::Discard) {
    FixedVolumeSection section;
    section.id = std::move(id);
    section.mode = mode;
    return section;
}

// The driver reads from the top: what gates something must stand above it.
TEST(ConfigText, PutsWhatGatesAboveWhatIsGated) {
    Configuration configuration;
    configuration.fixed = {Section(u"\\Device\\HarddiskVolume2", BootMode::Keep)};
    configuration.fixed[0].discardDate = "203105101200";
    const std::string text = Narrow(ComposeConfiguration(configuration));
    EXPECT_TRUE(text.starts_with("[Global]\r\nProtection = 1\r\n")) << text;
    EXPECT_LT(text.find("Protection"), text.find("[FV"));
    EXPECT_LT(text.find("BootMode = 1"), text.find("NextDiscardTS = 203105101200"));
    EXPECT_LT(text.find("FVBootMode"), text.find("[FV"));
}

TEST(ConfigText, RefusesWhatTheDriverWouldReadDifferently) {
    for (const auto* id : {u"", u"C:", u"\\Device\\a b", u"\\Device\\x,y", u"\\Device\\x;y", u"a=b"}) {
        Configuration configuration;
        configuration.fixed = {Section(id)};
        EXPECT_THROW(ComposeConfiguration(configuration), std::invalid_argument) << Narrow(id);
    }
    Configuration configuration;
    configuration.fixed = {Section(std::u16string(65, u'x'))};
    EXPECT_THROW(ComposeConfiguration(configuration), std::invalid_argument);
    for (const auto* date : {"20310510120", "2031051012000", "2031O5101200"}) {
        configuration.fixed = {Section(u"v", BootMode::Keep)};
        configuration.fixed[0].discardDate = date;
        EXPECT_THROW(ComposeConfiguration(configuration), std::invalid_argument) << date;
    }
    // A date that the boot mode keeps closed would never come.
    configuration.fixed = {Section(u"v", BootMode::Discard)};
    configuration.fixed[0].discardDate = "203105101200";
    EXPECT_THROW(ComposeConfiguration(configuration), std::invalid_argument);
}

TEST(ConfigText, ImageIsExactlyWhatTheControlDeviceTakes) {
    const auto image = ConfigurationImage(u"A\u263a");
    ASSERT_EQ(image.size(), 8192u);
    EXPECT_EQ(std::vector<std::uint8_t>(image.begin(), image.begin() + 6),
              (std::vector<std::uint8_t>{'A', 0, 0x3a, 0x26, 0, 0}));
    EXPECT_EQ(ConfigurationText(image), u"A\u263a");
    EXPECT_EQ(ConfigurationText(ConfigurationImage(std::u16string(4096, u'x'))).size(), 4096u);
    EXPECT_THROW(ConfigurationImage(std::u16string(4097, u'x')), std::invalid_argument);
}

TEST(ConfigText, FindsAVolumesOwnSetting) {
    Configuration configuration;
    configuration.fixed = {Section(u"v1"), Section(u"v11", BootMode::Keep), Section(u"v2")};
    configuration.fixed[1].action = BootAction::Merge;
    configuration.removables.resize(1);
    configuration.removables[0].id = u"stick";
    const auto text = ComposeConfiguration(configuration);
    EXPECT_EQ(VolumeSetting(text, u"v1", "BootAction"), "0");
    EXPECT_EQ(VolumeSetting(text, u"v11", "BootAction"), "2");
    EXPECT_EQ(VolumeSetting(text, u"v2", "BootMode"), "0");
    EXPECT_EQ(VolumeSetting(text, u"v2", "AccessMode"), "");
    EXPECT_EQ(VolumeSetting(text, u"stick", "AccessMode"), "1");
    EXPECT_EQ(VolumeSetting(text, u"v3", "BootMode"), "");
}

}  // namespace
