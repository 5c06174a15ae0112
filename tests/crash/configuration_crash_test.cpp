// The power fails while the tool's configuration is written. The driver writes the text in 16 pieces of 512
// bytes, each in one sector: after a cut each piece is the old one or the new one, none is lost or mixed, and
// the next boot reads exactly that text. The first write of all, which makes the file, counts from the moment
// at which the registry, which says where the pieces lie, is on disk: until then the next boot finds none.
#include <cstring>
#include "config/storage.h"
#include "tests/crash/crash_sweep.h"

namespace {

using namespace crash;

using Text = std::vector<std::uint8_t>;

// A configuration that fills nearly all pieces, no two alike.
Configuration Long(char16_t tag) {
    Configuration configuration;
    for (char16_t i = 0; i < 70; ++i) {
        const std::u16string number{static_cast<char16_t>(u'A' + i % 26), static_cast<char16_t>(u'A' + i / 26)};
        configuration.extra += u"\r\n[FV other" + number + u"]\r\nID=\\Device\\Other" + std::u16string(8, tag);
    }
    return configuration;
}

Text Image(const Configuration& configuration) {
    EXPECT_LE(configuration.Text().size() * 2, KVR_CONFIG_BYTES);
    return ConfigRecord(configuration.Text());
}

// What the driver works with.
Text InUse() {
    return {gConfigBuffer, gConfigBuffer + KVR_CONFIG_BYTES};
}

// The bytes of kvr.cfg on the medium, where they lie in one piece.
Text OnMedium(ProtectedComputer& computer) {
    Text text(KVR_CONFIG_BYTES);
    EXPECT_EQ(STATUS_SUCCESS,
              computer.SystemDisk().Read(
                  computer.SystemOffset() + computer.SystemFiles().Find(kConfigPath)->Extents.at(0).Offset,
                  text.data(), text.size()));
    return text;
}

// Expects each piece to be that of one of the two texts; returns how many are the second's.
unsigned ExpectPieces(const Text& found, const Text& older, const Text& newer) {
    unsigned changed = 0;
    for (std::size_t at = 0; at < found.size(); at += kConfigPieceBytes) {
        const auto is = [&](const Text& text) {
            return std::memcmp(&found[at], &text[at], kConfigPieceBytes) == 0;
        };
        EXPECT_TRUE(is(older) || is(newer)) << "piece " << at / kConfigPieceBytes;
        changed += is(newer) && !is(older);
    }
    return changed;
}

Text FromTool(ProtectedComputer& computer) {
    Text text(KVR_CONFIG_BYTES, 0);
    KVR_DISCARD(computer.Control(IOCTL_KVR_GET_CONFIG, nullptr, 0, text.data(), KVR_CONFIG_BYTES),
                "a file that is not there gives an empty text");
    return text;
}

// A configuration that is written now holds from the next boot on.
void ExpectConfigurable(ProtectedComputer& computer, const Configuration& configuration) {
    ASSERT_EQ(STATUS_SUCCESS, computer.SetConfig(configuration));
    computer.Hardware().Shutdown();
    ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
    EXPECT_EQ(Image(configuration), OnMedium(computer));
    EXPECT_EQ(Image(configuration), FromTool(computer));
    EXPECT_EQ(Image(configuration), InUse());
    ExpectUsable(computer, configuration.bootMode == 1);
}

TEST(ConfigurationCrash, WhileItIsWrittenFirst) {
    const ComputerImage start = StampedComputer(SmallOptions(0, 0))->Capture();
    const Text fresh = Image(Long(u'n'));
    Scenario scenario{"first configuration", &start, {0, 8}, true, PowerOn, {}, {}};
    OwnSectors own;
    scenario.operate = [&](ProtectedComputer& computer) {
        KVR_DISCARD(computer.SetConfig(Long(u'n')), "fails when the power does");
        computer.Hardware().Shutdown();
        own.Learn(computer);
    };
    scenario.check = [&](ProtectedComputer& computer, const CutPoint&) {
        own.ExpectOthersUnchanged(start, computer);
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        if (gConfigLoaded) {
            EXPECT_EQ(fresh, InUse());
            EXPECT_EQ(4u, computer.Status().SwapStatus);
        } else {
            EXPECT_EQ(0u, computer.Status().State);
        }
        ExpectConfigurable(computer, Long(u'n'));
    };
    EXPECT_GE(Sweep(scenario), 3u * 3);
}

TEST(ConfigurationCrash, WhileItIsWrittenAgain) {
    const auto base = StampedComputer(SmallOptions(0, 0));
    base->Install(Long(u'o'), kSwapBytes);
    const ComputerImage start = base->Capture();
    const Text older = Image(Long(u'o')), newer = Image(Long(u'n'));
    OwnSectors own;
    own.Learn(*base);
    unsigned mixed = 0;
    Scenario scenario{"configuration again", &start, {0, 1}, false, PowerOn, {}, {}};
    scenario.operate = [](ProtectedComputer& computer) {
        KVR_DISCARD(computer.SetConfig(Long(u'n')), "fails when the power does");
    };
    scenario.check = [&](ProtectedComputer& computer, const CutPoint& cut) {
        own.ExpectOthersUnchanged(start, computer);
        const Text text = OnMedium(computer);
        const unsigned changed = ExpectPieces(text, older, newer);
        EXPECT_LE(changed, cut.nth - 1 + cut.kept) << "pieces behind the cut were written";
        mixed += changed != 0 && text != newer;
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        EXPECT_EQ(text, InUse());
        EXPECT_EQ(text, FromTool(computer));
        ExpectConfigurable(computer, Long(u'n'));
    };
    EXPECT_GE(Sweep(scenario), 2u * 16);
    EXPECT_GE(mixed, 20u) << "the two texts are not different enough";
}

}  // namespace
