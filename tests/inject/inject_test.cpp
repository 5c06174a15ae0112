#include "tool/inject/inject.h"
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <regex>
#include <thread>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include "machine/partition/subprocess.h"
#include "tests/inject/fake_windows.h"
#include "tool/inject/certificate_store.h"
#include "tool/inject/hive.h"
#include "tool/inject/image_edit.h"
#include "tool/inject/test_sign.h"

namespace {

using namespace fake_windows;
using hive_maker::Lists;
using hive_maker::Maker;
using tool::InjectOptions;

constexpr char kSystem[] = "/Windows/System32/config/SYSTEM";
constexpr char kSoftware[] = "/Windows/System32/config/SOFTWARE";
constexpr char kDriver[] = "/Windows/System32/drivers/kvr64.sys";
constexpr char kConfig[] = "/Windows/System32/drivers/kvr.cfg";

InjectOptions Options(const TestFolder& folder, const std::string& image) {
    InjectOptions options;
    options.image = image;
    options.driver = HostFile(folder, "kvr64.sys", DriverImage());
    options.tool = options.driver;
    options.allowUnsigned = true;
    return options;
}

tool::Report Remove(const std::string& image) {
    InjectOptions options;
    options.image = image;
    options.remove = true;
    return tool::Inject(options);
}

std::string Said(const tool::Report& report) {
    std::string all;
    for (const std::string& line : report) all += line + "\n";
    return all;
}

// The lines that the second has and the first has not.
std::vector<std::string> Added(const std::vector<std::string>& before, const std::vector<std::string>& after) {
    std::vector<std::string> added;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(added));
    return added;
}

std::string Raw(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

// A line of Dump().
std::string Line(const std::string& key, const std::string& value, int type, const Bytes& data) {
    return key + " " + value + " " + std::to_string(type) + " " + Raw(data);
}

// What kvr.inf says, itself or in its strings, so that both ways of installing write the same.
std::string FromInf(const std::string& name) {
    const std::vector<char> inf = TestFolder::Bytes(std::string(KVR_SOURCE_FOLDER) + "/install/kvr.inf");
    const std::string text(inf.begin(), inf.end());
    std::smatch found;
    std::regex_search(text, found, std::regex("\n" + name + " *= *\"?([^\" %\n][^\"\n]*)"));
    return found[1];
}

Bytes InfNumber(const std::string& name) {
    return Dword(static_cast<std::uint32_t>(std::stoul(FromInf(name))));
}

const std::string kClass = "\\ControlSet001\\Control\\Class\\";
const std::string kVolumeClass = kClass + "{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
const std::string kDiskClass = kClass + "{4D36E967-E325-11CE-BFC1-08002BE10318}";

// What the registry of the plain installation gains, and nothing else.
std::vector<std::string> ExpectedAdditions(const Bytes& location) {
    const std::string service = "\\ControlSet001\\Services\\kvr", own = "\\kvr";
    std::vector<std::string> lines = {service,
                                      own,
                                      Line(service, "Type", 4, InfNumber("ServiceType")),
                                      Line(service, "Start", 4, InfNumber("StartType")),
                                      Line(service, "ErrorControl", 4, InfNumber("ErrorControl")),
                                      Line(service, "DisplayName", 1, Sz(FromInf("Service"))),
                                      Line(service, "Description", 1, Sz(FromInf("Description"))),
                                      Line(service, "Group", 1, Sz(FromInf("LoadOrderGroup"))),
                                      Line(service, "ImagePath", 2, Sz("System32\\drivers\\kvr64.sys")),
                                      Line(own, "Hardening", 4, Dword(1)),
                                      Line(own, "InjectedVersion", 1, Sz("1.2.3.4")),
                                      Line(own, "\\Device\\HarddiskVolume3\\kvr.CFG", 3, location),
                                      Line(kVolumeClass, "UpperFilters", 7, MultiSz({"volsnap", "kvr"})),
                                      Line(kDiskClass, "UpperFilters", 7, MultiSz({"partmgr", "kvr"}))};
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The configuration's bytes, by the sectors that the registry names.
Bytes BySectors(const std::string& image, const Bytes& location) {
    const std::vector<char> disk = TestFolder::Bytes(image);
    Bytes content;
    for (std::size_t i = 0; i + 8 <= location.size(); i += 8) {
        std::int64_t offset;
        std::memcpy(&offset, &location[i], 8);
        const auto sector = disk.begin() + static_cast<std::ptrdiff_t>(VolumeOffset(false)) + offset;
        content.insert(content.end(), sector, sector + 512);
    }
    return content;
}

TEST(Inject, AddsWhatTheInfAddsOnceAndTakesItOutAgain) {
    for (const Lists lists : {Lists::Lf, Lists::Lh, Lists::Ri, Lists::Li}) {
        SCOPED_TRACE(static_cast<int>(lists));
        const TestFolder folder;
        const std::string image = Make(folder, {.lists = lists});
        const auto before = Dump(ReadFile(folder, image, kSystem));
        const InjectOptions options = Options(folder, image);
        tool::Inject(options);

        const Bytes system = ReadFile(folder, image, kSystem);
        const Bytes location =
            tool::Hive("SYSTEM", system).Get("kvr", "\\Device\\HarddiskVolume3\\kvr.CFG")->bytes;
        EXPECT_EQ(Added(before, Dump(system)), ExpectedAdditions(location));
        EXPECT_EQ(Added(Dump(system), before).size(), 2u);  // the two lists as they were
        EXPECT_EQ(ReadFile(folder, image, kDriver), DriverImage());
        const std::string security = ReadSecurity(folder, image, kDriver);
        EXPECT_NE(security.find("mode 0644"), std::string::npos) << security;
        const Bytes text = BySectors(image, location);
        EXPECT_EQ(text.size(), 8192u);
        EXPECT_EQ(text, ReadFile(folder, image, kConfig));
        EXPECT_EQ(Raw(text).find(Raw(Sz("[Global]\r\nProtection = 0\r\n")).substr(0, 50)), 0u);

        EXPECT_NE(Said(tool::Inject(options)).find("1.2.3.4 (was 1.2.3.4)"), std::string::npos);
        EXPECT_EQ(Dump(ReadFile(folder, image, kSystem)), Dump(system));
        EXPECT_EQ(BySectors(image, location), text);

        if (lists == Lists::Li) {
            const auto held = TestFolder::Bytes(image);
            EXPECT_NE(Complaint([&] { Remove(image); }).find("in the old way (li)"), std::string::npos);
            EXPECT_TRUE(TestFolder::Bytes(image) == held);
            continue;
        }
        Remove(image);
        EXPECT_EQ(Dump(ReadFile(folder, image, kSystem)), before);
        for (const char* file : {kDriver, kConfig, "/Windows/System32/kvrctl.exe"})
            EXPECT_TRUE(ReadFile(folder, image, file).empty()) << file;
        EXPECT_NE(Said(Remove(image)).find("nothing of Kvr"), std::string::npos);
    }
}

TEST(Inject, KeepsOddListsAndLeavesAConfigurationAlone) {
    const TestFolder folder;
    Key system = SystemHive();
    std::vector<std::string> many;
    for (int i = 0; i < 300; ++i) many.push_back("filter" + std::to_string(i));
    many.insert(many.begin() + 7, "KVR");
    Below(system, "Select").values = {{"cURRENT", 4, Dword(2)}};
    Key& set = Below(system, "ControlSet002\\Control\\Class");
    for (Key& one : set.keys) one.values.clear();  // no lists at all
    Below(system, "ControlSet001\\Control\\Class\\{4D36E967-E325-11CE-BFC1-08002BE10318}").values = {
        {"upperfilters", 7, MultiSz(many)}};
    Below(system, "ControlSet002\\Control\\Class\\{4d36e967-e325-11ce-bfc1-08002be10318}").values = {
        {"upperfilters", 7, MultiSz(many)}, {"odd", 0xFFFF0012, Sz("type")}};
    Below(system, "KVR").values = {{"hardening", 4, Dword(0)}};
    const Bytes text(8192, 0x20);
    const std::string image = Make(folder, {.system = system, .further = {{kConfig, text}}});
    tool::Inject(Options(folder, image));

    const tool::Hive hive("SYSTEM", ReadFile(folder, image, kSystem));
    const std::string classes = "ControlSet002\\Control\\Class\\";
    EXPECT_EQ(hive.Get(classes + "{4D36E967-E325-11CE-BFC1-08002BE10318}", "UpperFilters")->bytes,
              MultiSz(many));
    EXPECT_EQ(hive.Get(classes + "{71A27CDD-812A-11D0-BEC7-08002BE2092F}", "UpperFilters")->bytes,
              MultiSz({"kvr"}));
    EXPECT_EQ(hive.Get(classes + "{4D36E967-E325-11CE-BFC1-08002BE10318}", "odd")->type, 0xFFFF0012u);
    EXPECT_TRUE(hive.HasKey("ControlSet002\\Services\\kvr"));
    EXPECT_FALSE(hive.HasKey("ControlSet001\\Services\\kvr"));
    EXPECT_EQ(hive.Get("kvr", "Hardening")->bytes, Dword(0));
    EXPECT_EQ(ReadFile(folder, image, kConfig), text);

    // Taken out of every control set, and a list that is left empty with it.
    Remove(image);
    const tool::Hive after("SYSTEM", ReadFile(folder, image, kSystem));
    many.erase(many.begin() + 7);
    for (const char* name : {"ControlSet001", "ControlSet002"})
        EXPECT_EQ(after
                      .Get(std::string(name) + "\\Control\\Class\\{4D36E967-E325-11CE-BFC1-08002BE10318}",
                           "UpperFilters")
                      ->bytes,
                  MultiSz(many));
    EXPECT_FALSE(after.Get(classes + "{71A27CDD-812A-11D0-BEC7-08002BE2092F}", "UpperFilters"));
}

TEST(Inject, SignsForTestModeAndTakesThatOutToo) {
    struct Boot {
        bool efi, fat;
    };
    for (const auto& [efi, fat] : {Boot{true, false}, Boot{false, false}, Boot{false, true}}) {
        SCOPED_TRACE(efi);
        SCOPED_TRACE(fat);
        const TestFolder folder;
        const std::string image = Make(folder, {.efi = efi, .fatBoot = fat});
        const auto software = Dump(ReadFile(folder, image, kSoftware, efi)),
                   store = Dump(ReadBootStore(folder, image, efi, fat));
        InjectOptions options = Options(folder, image);
        options.testSign = true;
        options.output = folder.File("out.raw");
        const std::string said = Said(tool::Inject(options));
        EXPECT_EQ(said.find("Secure Boot must be off") != std::string::npos, efi);
        EXPECT_TRUE(ReadFile(folder, image, kDriver, efi).empty()) << "the image itself was edited";

        const std::string pem = options.output + ".kvr-test.pem";
        const std::string driver =
            HostFile(folder, "signed.sys", ReadFile(folder, options.output, kDriver, efi));
        const auto verified = machine::RunTool("osslsigncode", {"verify", "-CAfile", pem, "-in", driver});
        EXPECT_EQ(verified.exitCode, 0) << verified.output;
        // The certificate as others make it binary, in both stores.
        const auto made =
            machine::RunTool("openssl", {"x509", "-in", pem, "-outform", "DER", "-out", folder.File("der")});
        ASSERT_EQ(made.exitCode, 0) << made.output;
        const auto der = TestFolder::Bytes(folder.File("der"));
        const auto added = Added(software, Dump(ReadFile(folder, options.output, kSoftware, efi)));
        ASSERT_EQ(added.size(), 4u);  // in each store a key and its value
        for (const std::size_t at : {1u, 3u}) {
            EXPECT_EQ(added[at].substr(added[at].size() - der.size()), std::string(der.begin(), der.end()));
            EXPECT_EQ(added[at].find(added[at - 1] + " Blob 3 " + Raw({3, 0, 0, 0, 1, 0, 0, 0, 20, 0, 0, 0})),
                      0u);
        }
        const auto changes = Added(store, Dump(ReadBootStore(folder, options.output, efi, fat)));
        EXPECT_EQ(changes.size(), 2u);  // for one of the two loaders a key and its value
        EXPECT_EQ(
            std::count_if(changes.begin(), changes.end(),
                          [](auto& line) { return line.ends_with(std::string("\\16000049 Element 3 \1")); }),
            1);

        Remove(options.output);
        EXPECT_EQ(Dump(ReadFile(folder, options.output, kSoftware, efi)), software);
        EXPECT_EQ(Dump(ReadBootStore(folder, options.output, efi, fat)), store);
    }
}

// The certificate was trusted as a root before, with properties of its own; and each injection signs with
// another.
TEST(Inject, TakesOutOnlyTheTrustThatItGave) {
    const TestFolder folder;
    const auto certificate = [&](const char* name) {
        tool::MakeCertificate(folder.File(name));
        machine::RunTool("openssl",
                         {"x509", "-in", folder.File(name), "-outform", "DER", "-out", folder.File("der")});
        const auto der = TestFolder::Bytes(folder.File("der"));
        return tool::StoreForm({der.begin(), der.end()}).key;
    };
    const std::string stores = "Microsoft\\SystemCertificates\\", below = "\\Certificates\\";
    const std::string known = certificate("known.pem"), other = certificate("other.pem");
    Key software = SoftwareHive();
    Below(software, stores + "ROOT" + below + known).values = {{"Blob", 3, {11, 0, 0, 0}}};
    const std::string image = Make(folder, {.software = software});
    const auto before = Dump(ReadFile(folder, image, kSoftware));
    const auto store = Dump(ReadBootStore(folder, image, false));
    for (const char* pem : {"known.pem", "other.pem", "known.pem"}) {
        InjectOptions options = Options(folder, image);
        options.testSign = true;
        options.certificate = folder.File(pem);
        tool::Inject(options);
    }
    const tool::Hive injected("SOFTWARE", ReadFile(folder, image, kSoftware));
    EXPECT_EQ(injected.Get(stores + "ROOT" + below + known, "Blob"), tool::Binary({11, 0, 0, 0}));
    EXPECT_TRUE(injected.HasKey(stores + "TrustedPublisher" + below + known));
    EXPECT_TRUE(injected.HasKey(stores + "ROOT" + below + other));
    Remove(image);
    EXPECT_EQ(Dump(ReadFile(folder, image, kSoftware)), before);
    EXPECT_EQ(Dump(ReadBootStore(folder, image, false)), store);
}

TEST(Inject, TellsTwoWindowsOnOneVolumeApartByTheirRoots) {
    const TestFolder folder;
    const Bytes hive = Maker::Make(SystemHive(), Lists::Lh);
    const std::string image =
        Make(folder, {.folders = {"/Old", "/Old/System32", "/Old/System32/config", "/Old/System32/drivers"},
                      .further = {{"/Old/System32/config/SYSTEM", hive}}});
    InjectOptions options = Options(folder, image);
    options.root = "OLD";
    tool::Inject(options);
    EXPECT_TRUE(ReadFile(folder, image, kDriver).empty());
    EXPECT_EQ(ReadFile(folder, image, "/Old/System32/drivers/kvr64.sys"), DriverImage());
    EXPECT_EQ(Dump(ReadFile(folder, image, kSystem)), Dump(hive));
    EXPECT_TRUE(tool::Hive("SYSTEM", ReadFile(folder, image, "/Old/System32/config/SYSTEM"))
                    .HasKey("ControlSet001\\Services\\kvr"));
}

struct Setting {
    const char* said;
    const char* key;
    const char* value;
    tool::HiveValue number;
    const char* line;
};

TEST(Inject, PreparesAndTellsWhatWas) {
    const std::string memory = "Control\\Session Manager\\Memory Management";
    const Setting settings[] = {
        {"trim=off", "Control\\FileSystem", "DisableDeleteNotification", tool::Number(1),
         "trim: DisableDeleteNotification = 1 (was not set)"},
        {"offloaded-copies=off", "Control\\FileSystem", "FilterSupportedFeaturesMode", tool::Number(1),
         "offloaded-copies: FilterSupportedFeaturesMode = 1 (was not set)"},
        {"hibernation=off", "Control\\Power", "HibernateEnabled", tool::Number(0), "HibernateEnabled = 0"},
        {"fast-startup=off", "Control\\Session Manager\\Power", "HiberbootEnabled", tool::Number(0),
         "HiberbootEnabled = 0"},
        {"swapfile=off", memory.c_str(), "SwapFileControl", tool::Number(0), "SwapFileControl = 0"},
        {"crash-dumps=small", "Control\\CrashControl", "CrashDumpEnabled", tool::Number(3),
         "CrashDumpEnabled = 3 (was 7)"},
        {"defragmentation=off", "Services\\defragsvc", "Start", tool::Number(4), "defragmentation: Start = 4"},
        {"paging-file=2048", memory.c_str(), "PagingFiles", tool::List({"C:\\pagefile.sys 2048 2048"}),
         "paging-file: PagingFiles = C:\\pagefile.sys 2048 2048 (was ?:\\pagefile.sys)"},
    };
    const TestFolder folder;
    Key system = SystemHive();
    Below(system, "ControlSet001\\Control\\CrashControl").values = {{"CrashDumpEnabled", 4, Dword(7)}};
    const std::string image = Make(folder, {.system = system});
    InjectOptions options = Options(folder, image);
    for (const Setting& one : settings) options.prepare.push_back(one.said);
    const std::string said = Said(tool::Inject(options));
    const tool::Hive hive("SYSTEM", ReadFile(folder, image, kSystem));
    for (const Setting& one : settings) {
        EXPECT_EQ(hive.Get(std::string("ControlSet001\\") + one.key, one.value), one.number) << one.said;
        EXPECT_NE(said.find(one.line), std::string::npos) << said;
    }
    for (const char* bad : {"trim", "trim=maybe", "sleep=off", "paging-file=8"}) {
        options.prepare = {bad};
        EXPECT_FALSE(Complaint([&] { tool::Inject(options); }).empty()) << bad;
    }
}

Bytes Hibernated() {
    Bytes file(8192);
    std::memcpy(file.data(), "hibr", 4);
    return file;
}

// Of every hive in the image, as if their last writes had not ended.
void AdvanceSequences(const std::string& image) {
    const auto bytes = TestFolder::Bytes(image);
    for (std::size_t at = 0; at < bytes.size(); at += 512) {
        if (std::memcmp(&bytes[at], "regf", 4) == 0)
            TestFolder::Put(image, at + 4, {static_cast<char>(bytes[at + 4] + 1)});
    }
}

TEST(Inject, RefusesWithOneLineAndLeavesTheImage) {
    using Damage = std::function<void(const std::string& image)>;
    struct Refusal {
        const char* says;
        std::function<void(Shape&)> shape = {};
        Damage damage = {};
        std::function<void(InjectOptions&)> options = {};
    };
    // The values of a key of the SYSTEM hive.
    const auto values = [](const std::string& key, const std::vector<hive_maker::Value>& are) {
        return [=](Shape& shape) { Below(shape.system, key).values = are; };
    };
    const auto processor = [&](const char* name) {
        return values("ControlSet001\\Control\\Session Manager\\Environment",
                      {{"PROCESSOR_ARCHITECTURE", 1, Sz(name)}});
    };
    const auto file = [](const char* path, const Bytes& bytes) {
        return [=](Shape& shape) { shape.further[path] = bytes; };
    };
    const auto bytes = [](std::uint64_t at, const std::vector<char>& are) -> Damage {
        return [=](const std::string& image) { TestFolder::Put(image, at, are); };
    };
    const std::string disks = kDiskClass.substr(1);
    const Refusal cases[] = {
        {"not dismounted cleanly", [](Shape& s) { s.dirty = true; }},
        {"hibernated", file("/hiberfil.sys", Hibernated())},
        {"BitLocker", {}, bytes(VolumeOffset(false) + 3, {'-', 'F', 'V', 'E', '-', 'F', 'S', '-'})},
        {"32-bit", processor("x86")},
        {"for ARM64", processor("ARM64")},
        {"no volume of the disk has a Windows in \\Other", {}, {}, [](auto& o) { o.root = "Other"; }},
        {"which control set", values("Select", {})},
        {"no ControlSet009", values("Select", {{"Current", 4, Dword(9)}})},
        {"no class for disks",
         [](Shape& s) {
             auto& classes = Below(s.system, "ControlSet001\\Control\\Class").keys;
             classes.erase(classes.begin());
         }},
        {"is no list", values(disks, {{"UpperFilters", 1, Sz("partmgr")}})},
        {"partitions 1 and 2", [](Shape& s) { s.twice = true; }},
        {"keeps Huge in ControlSet001\\Control\\Class\\{4D36E967", values(disks, {{"Huge", 3, Bytes(16349)}})},
        {"of the value Huge only a part can be read", values(disks, {{"Huge", 3, Bytes(16345)}})},
        {"SYSTEM needs recovery from its logs", {}, AdvanceSequences},
        {"partition table", {}, bytes(510, {0, 0})},
        {"no raw image", {}, bytes(0, {'Q', 'F', 'I', '\xFB'})},
        {"not signed", {}, {}, [](auto& o) { o.allowUnsigned = false; }},
        {"no program for 64-bit", {}, {}, [](auto& o) { o.tool = o.image; }},
        {"no room", file("/full", Bytes(8 << 20, 1))},
        {"sectors of a kvr.cfg that is gone",
         values("kvr", {{"\\Device\\HarddiskVolume3\\kvr.CFG", 3, Bytes(128, 1)}})},
        {"has storage (kvr.SWP)", file("/kvr.SWP", Bytes(8192)), {}, [](auto& o) { o.remove = true; }},
        {"starts no Windows", [](Shape& s) { s.boot.keys.clear(); }, {}, [](auto& o) { o.testSign = true; }},
    };
    for (const Refusal& refusal : cases) {
        SCOPED_TRACE(refusal.says);
        const TestFolder folder;
        Shape shape;
        if (refusal.shape) refusal.shape(shape);
        const std::string image = Make(folder, shape);
        if (refusal.damage) refusal.damage(image);
        InjectOptions options = Options(folder, image);
        if (refusal.options) refusal.options(options);
        const auto before = TestFolder::Bytes(image);
        const std::string complaint = Complaint([&] { tool::Inject(options); });
        EXPECT_NE(complaint.find(refusal.says), std::string::npos) << complaint;
        EXPECT_EQ(complaint.find('\n'), std::string::npos);
        EXPECT_TRUE(TestFolder::Bytes(image) == before) << "the image was changed";
        options.output = folder.File("copy");
        EXPECT_FALSE(Complaint([&] { tool::Inject(options); }).empty());
        EXPECT_FALSE(std::filesystem::exists(options.output) ||
                     std::filesystem::exists(options.output + ".part"));
    }
}

// The line is of a key on the way to what is edited, or of a value there.
bool IsEdited(const std::string& line) {
    const std::string key = line.substr(0, std::min(line.find(" U"), line.find(" S")));
    for (const std::string& edited : {std::string("\\ControlSet001\\Services\\kvr"), kDiskClass})
        if (edited.compare(0, key.size(), key) == 0) return true;
    return false;
}

// A hive with wrong bytes is refused, or edited so that everything else that can be read in it is as it was.
TEST(Inject, DamagedHivesAreRefusedOrKeptAsTheyAre) {
    std::mt19937 random(12);
    const char* longRun = std::getenv("KVR_LONG");
    const int rounds = longRun != nullptr && *longRun == '1' ? 20000 : 250;
    const Bytes sound = Maker::Make(SystemHive(), Lists::Ri);
    int edited = 0;
    for (int round = 0; round < rounds; ++round) {
        Bytes hive = sound;
        if (round % 10 == 0) hive.resize(random() % hive.size());
        for (unsigned n = random() % 4; n-- > 0 && hive.size() > 4;)
            hive[(round % 3 == 0 ? random() % 8192 : random()) % hive.size()] =
                static_cast<std::uint8_t>(random());
        if (hive.size() > 512 && round % 2 != 0) Maker::Seal(hive);
        Complaint([&] {
            tool::Hive opened("SYSTEM", hive);
            opened.Set("ControlSet001\\Services\\kvr", "Start", tool::Number(0));
            opened.Set(kDiskClass, "UpperFilters", tool::List({"partmgr", "kvr"}));
            // What is new is named by the edit; nothing else is gone.
            const Bytes saved = opened.Save();
            const auto before = Dump(hive), after = Dump(saved);
            for (const std::string& line : Added(before, after)) EXPECT_TRUE(IsEdited(line)) << line;
            for (const std::string& line : Added(after, before)) EXPECT_EQ(line.find(kDiskClass), 0u) << line;
            ++edited;
        });
    }
    EXPECT_GT(edited, rounds / 20);
    EXPECT_LT(edited, rounds);
}

// What another tool says of a hive, its lines in their order.
std::vector<std::string> Exported(const TestFolder& folder, const std::string& hive) {
    const auto done =
        machine::RunTool("reged", {"-x", hive, "HKEY_LOCAL_MACHINE\\SYSTEM", "\\", folder.File("out.reg")});
    EXPECT_EQ(done.exitCode, 0) << done.output;
    std::ifstream stream(folder.File("out.reg"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line.substr(0, line.find('\r')));
    std::sort(lines.begin(), lines.end());
    return lines;
}

// A long list of keys that another tool wrote, and what it reads behind an edit.
TEST(Inject, AgreesWithAnotherToolThatWritesAndReadsHives) {
    const TestFolder folder;
    const std::string prefix = "HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Services\\";
    std::string text = "Windows Registry Editor Version 5.00\r\n\r\n";
    for (int i = 0; i < 400; ++i)
        text += "[" + prefix + "l" + std::to_string(1000 + i) + "]\r\n\"Start\"=dword:00000003\r\n\r\n";
    const std::string import = HostFile(folder, "in.reg", Bytes(text.begin(), text.end()));
    Key system = SystemHive();
    for (const char* set : {"ControlSet001", "ControlSet002"})
        Below(system, std::string(set) + "\\Services\\zzz").values.clear();  // it reads no values in pieces
    const std::string hive = HostFile(folder, "SYSTEM", Maker::Make(system, Lists::Lh));
    machine::RunTool("reged", {"-C", "-I", hive, "HKEY_LOCAL_MACHINE\\SYSTEM", import});
    const auto before = Exported(folder, hive);
    EXPECT_GT(before.size(), 800u);

    const auto bytes = TestFolder::Bytes(hive);
    tool::Hive opened("SYSTEM", {bytes.begin(), bytes.end()});
    opened.Set("ControlSet001\\Services\\KVR", "Start", tool::Number(0));
    opened.Set("ControlSet001\\services\\L1007", "Start", tool::Number(4));
    opened.DeleteKey("ControlSet001\\Services\\l1399");
    const auto after = Exported(folder, HostFile(folder, "SYSTEM", opened.Save()));
    EXPECT_EQ(Added(before, after),
              (std::vector<std::string>{"\"Start\"=dword:00000000", "\"Start\"=dword:00000004",
                                        "[" + prefix + "KVR]"}));
    EXPECT_EQ(Added(after, before),
              (std::vector<std::string>{"\"Start\"=dword:00000003", "\"Start\"=dword:00000003",
                                        "[" + prefix + "l1399]"}));
}

// Two keys with one list of values, as a damaged hive may have them: an edit of the one would change the other.
TEST(Inject, AnEditThatWouldReachAnotherKeyIsRefused) {
    Bytes hive = Maker::Make(SystemHive(), Lists::Lh);
    const std::string name = kDiskClass.substr(kClass.size());
    constexpr std::size_t kValues = 40, kNameAt = 76;  // in a key's record: its list of values, its name
    const auto first = std::search(hive.begin(), hive.end(), name.begin(), name.end());
    const auto second = std::search(first + 1, hive.end(), name.begin(), name.end());
    ASSERT_NE(second, hive.end());
    std::copy_n(first - kNameAt + kValues, 4, second - kNameAt + kValues);
    tool::Hive opened("SYSTEM", hive);
    opened.Set(kDiskClass, "UpperFilters", tool::List({"partmgr", "kvr"}));
    EXPECT_NE(Complaint([&] { opened.Save(); }).find("is not edited"), std::string::npos);
}

// Whenever the host's process is killed, the next edit finds the image as it was, or as it was to be.
TEST(Inject, AKillAtAnyMomentCostsNothing) {
    const TestFolder folder;
    const std::string image = Make(folder, {});
    const auto original = TestFolder::Bytes(image);
    const auto before = Dump(ReadFile(folder, image, kSystem));
    const InjectOptions options = Options(folder, image);
    const auto begin = std::chrono::steady_clock::now();
    tool::Inject(options);
    const auto whole = std::chrono::steady_clock::now() - begin;
    const auto after = Dump(ReadFile(folder, image, kSystem));
    constexpr int kKills = 16;
    for (int i = 0; i < kKills; ++i) {
        TestFolder::Put(image, 0, original);
        const pid_t child = fork();
        if (child == 0) _exit(tool::Inject(options).empty());
        std::this_thread::sleep_for(whole * i / (kKills - 4));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        tool::ImageEdit{image};
        EXPECT_FALSE(std::filesystem::exists(image + ".kvr-undo"));
        const auto now = Dump(ReadFile(folder, image, kSystem));
        const Bytes driver = ReadFile(folder, image, kDriver);
        EXPECT_TRUE((now == before && driver.empty()) || (now == after && driver == DriverImage())) << i;
    }
}

TEST(Inject, LaysAConfigurationWhereItsVolumeIsKnown) {
    const TestFolder folder;
    Key system = SystemHive();
    Below(system, "ControlSet001\\Services\\dam\\UserSettings\\S-1-5-18").values = {
        {"\\Device\\HarddiskVolume4\\Windows\\notepad.exe", 3, Bytes(24, 1)}};
    const std::string image = Make(folder, {.system = system});
    InjectOptions options = Options(folder, image);
    EXPECT_NE(Said(tool::Inject(options)).find("not noted what it calls its volume"), std::string::npos);
    EXPECT_TRUE(ReadFile(folder, image, kConfig).empty());

    const auto configure = [&](const std::string& text) {
        options.configuration = HostFile(folder, "config", Bytes(text.begin(), text.end()));
        return Complaint([&] { tool::Inject(options); });
    };
    EXPECT_NE(configure("[Global]\nProtection=1\nRVAccessMode=2\n").find("--volume-name"), std::string::npos);
    options.volumeName = "HarddiskVolume9";
    EXPECT_NE(configure("[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume9\nProtectionMode=1\n")
                  .find("no storage yet"),
              std::string::npos);
    EXPECT_EQ(configure("[Global]\nProtection=1\nRVAccessMode=2\n"), "");
    const auto location =
        tool::Hive("SYSTEM", ReadFile(folder, image, kSystem)).Get("kvr", "\\Device\\HarddiskVolume9\\kvr.CFG");
    ASSERT_TRUE(location);
    EXPECT_NE(Raw(BySectors(image, location->bytes)).find(Raw(Sz("RVAccessMode=2")).substr(0, 28)),
              std::string::npos);
    EXPECT_NE(configure("[Global]\nProtection=0\n").find("a configuration already"), std::string::npos);
}

TEST(Inject, AHiveInTheMiddleOfAWriteIsRefused) {
    const Bytes sound = Maker::Make(SystemHive(), Lists::Lh);
    for (const bool sealed : {true, false}) {
        Bytes hive = sound;
        hive[sealed ? 8 : 40] ^= 1;
        if (sealed) Maker::Seal(hive);
        EXPECT_NE(Complaint([&] { tool::Hive("SYSTEM", hive); }).find("needs recovery from its logs"),
                  std::string::npos);
    }
}

// The image holds 32 MiB; a limit on the size of files stops a commit between its two writes.
class HalfWay : public testing::Test {
protected:
    static constexpr std::uint64_t kFirst = 1 << 20, kSecond = 40 << 20, kLimit = 32 << 20;

    HalfWay() : image_(folder_.Sparse("disk.raw", 48 << 20)) {
        TestFolder::Put(image_, kFirst, std::vector<char>(512, 'a'));
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        const rlimit low{kLimit, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &low);
        EXPECT_NE(Complaint([&] { Edit(); }), "") << "the commit was to fail";
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    void Edit() const {
        tool::ImageEdit edit(image_);
        for (const std::uint64_t at : {kFirst, kSecond}) edit.Write(at, std::string(512, 'b').data(), 512);
        edit.Commit();
    }
    char At(std::uint64_t offset) const { return TestFolder::Bytes(image_)[offset]; }

    const TestFolder folder_;
    const std::string image_;
    const std::string undo_ = image_ + ".kvr-undo";
};

TEST_F(HalfWay, TheNextEditUndoesIt) {
    ASSERT_TRUE(std::filesystem::exists(undo_));
    TestFolder::Put(image_, kFirst, std::vector<char>(512, 'b'));  // as a host that stopped would leave it
    EXPECT_NE(Complaint([&] { tool::CopyImage(image_, folder_.File("copy")); }).find("half-way"),
              std::string::npos);
    {
        const tool::ImageEdit edit(image_);
        EXPECT_TRUE(edit.WasUndone());
        EXPECT_NE(Complaint([&] { tool::ImageEdit other(image_); }).find("in use"), std::string::npos);
    }
    EXPECT_EQ(At(kFirst), 'a');
    EXPECT_FALSE(std::filesystem::exists(undo_));
    Edit();
    EXPECT_EQ(At(kFirst), 'b');
    EXPECT_EQ(At(kSecond), 'b');
    EXPECT_FALSE(std::filesystem::exists(undo_));
}

TEST_F(HalfWay, NothingIsUndoneInAnImageThatWasWrittenToSince) {
    TestFolder::Put(image_, kSecond, std::vector<char>(512, 'c'));
    EXPECT_NE(Complaint([&] { tool::ImageEdit edit(image_); }).find("written to since"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(undo_));
}

TEST_F(HalfWay, AnUndoFileThatWasNotFinishedCountsForNothing) {
    std::filesystem::resize_file(undo_, std::filesystem::file_size(undo_) - 1);
    EXPECT_FALSE(tool::ImageEdit(image_).WasUndone());
    EXPECT_FALSE(std::filesystem::exists(undo_));
}

}  // namespace
