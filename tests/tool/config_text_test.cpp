#include <gtest/gtest.h>
#include <stdexcept>
#include "tool/kvrctl/config_text.h"

namespace {

using namespace tool;

FixedVolumeSection Section(std::u16string id, BootMode mode = BootMode::Discard) {
    FixedVolumeSection section;
    section.id = std::move(id);
    section.mode = mode;
    return section;
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

}  // namespace
