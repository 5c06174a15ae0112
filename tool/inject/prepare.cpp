#include "tool/inject/prepare.h"
#include <algorithm>
#include <cctype>
#include <optional>
#include <utility>
#include "tool/error.h"

namespace tool {
namespace {

constexpr char kMemoryKey[] = "Control\\Session Manager\\Memory Management";
constexpr char kPagingFile[] = "paging-file";

struct Word {
    const char* text;
    std::uint32_t number;
};

// A number in the current control set, and the words that people give for it.
struct Rule {
    const char* name;
    const char* key;
    const char* value;
    std::vector<Word> words;
};

const std::vector<Rule>& Rules() {
    static const std::vector<Rule> rules = {
        {"trim", "Control\\FileSystem", "DisableDeleteNotification", {{"off", 1}, {"on", 0}}},
        {"offloaded-copies", "Control\\FileSystem", "FilterSupportedFeaturesMode", {{"off", 1}, {"on", 0}}},
        {"hibernation", "Control\\Power", "HibernateEnabled", {{"off", 0}, {"on", 1}}},
        {"fast-startup", "Control\\Session Manager\\Power", "HiberbootEnabled", {{"off", 0}, {"on", 1}}},
        {"swapfile", kMemoryKey, "SwapFileControl", {{"off", 0}}},
        {"crash-dumps", "Control\\CrashControl", "CrashDumpEnabled", {{"off", 0}, {"small", 3}}},
        // The scheduled task does its work through this service; disabled, it is never started.
        {"defragmentation", "Services\\defragsvc", "Start", {{"off", 4}, {"on", 3}}},
    };
    return rules;
}

bool IsDigits(const std::string& text) {
    return !text.empty() && text.size() < 8 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

// "C:\pagefile.sys 4096 4096": one size, so that it never grows. The letter stays where there is one.
HiveValue PagingFile(const std::optional<HiveValue>& old, const std::string& megabytes) {
    if (megabytes == "none") return List({});
    if (!IsDigits(megabytes) || std::stoul(megabytes) < 16)
        throw Error(std::string(kPagingFile) + " wants a number of MiB, at least 16, or none");
    const auto list = ListOf(old);
    const char letter =
        list && !list->empty() && std::isalpha(static_cast<unsigned char>(list->front()[0])) != 0
            ? list->front()[0]
            : 'C';
    return List({std::string(1, letter) + ":\\pagefile.sys " + megabytes + " " + megabytes});
}

HiveValue Meaning(const Rule& rule, const std::string& word) {
    std::string choices;
    for (const auto& [text, number] : rule.words) {
        if (word == text) return Number(number);
        choices += (choices.empty() ? "" : " or ") + std::string(text);
    }
    throw Error(std::string(rule.name) + " is " + choices);
}

void Set(Installation& windows, const std::string& name, const std::string& key, const std::string& value,
         const HiveValue& wanted, Report& report) {
    const std::string path = windows.Current(key);
    const auto old = windows.System().Get(path, value);
    windows.System().Set(path, value, wanted);
    report.push_back(name + ": " + value + " = " + Show(wanted) + " (was " + Show(old) + ")");
}

void PrepareOne(Installation& windows, const std::string& setting, Report& report) {
    const std::size_t equals = setting.find('=');
    const std::string name = setting.substr(0, equals);
    const std::string word = equals == std::string::npos ? "" : setting.substr(equals + 1);
    if (name == kPagingFile) {
        const auto old = windows.System().Get(windows.Current(kMemoryKey), "PagingFiles");
        return Set(windows, name, kMemoryKey, "PagingFiles", PagingFile(old, word), report);
    }
    const auto rule = std::find_if(Rules().begin(), Rules().end(), [&](auto& one) { return one.name == name; });
    if (rule == Rules().end()) throw Error("--prepare knows no \"" + name + "\"");
    Set(windows, name, rule->key, rule->value, Meaning(*rule, word), report);
}

}  // namespace

void Prepare(Installation& windows, const std::vector<std::string>& settings, Report& report) {
    for (const std::string& setting : settings) PrepareOne(windows, setting, report);
}

std::string PrepareHelp() {
    std::string help;
    for (const Rule& rule : Rules()) {
        help += "  " + std::string(rule.name) + "=";
        for (const Word& word : rule.words)
            help += (word.text == rule.words.front().text ? "" : "|") + std::string(word.text);
        help += "\n";
    }
    return help + "  " + kPagingFile + "=MIB|none\n";
}

}  // namespace tool
