// changes.
#include <chrono>
#include <nlohmann/json.hpp>
#include "client/failure.h"
#include "inspect/own_files.h"
#include "tool/kvrctl/changed_files.h"
#include "tool/kvrctl/printable.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"
#include "tool/text.h"

namespace ctl {
namespace {

using inspect::Change;
using Json = nlohmann::ordered_json;

// One line that is drawn anew, where somebody watches, once it takes a while.
class ProgressLine {
public:
    explicit ProgressLine(const Context& context) : context_(context) {}
    ~ProgressLine() {
        if (drawn_) context_.terminal.err << "\r\033[K" << std::flush;
    }
    void Draw(const char* what, std::uint64_t done, std::uint64_t total) {
        const auto now = std::chrono::steady_clock::now();
        if (!context_.terminal.isTerminal || context_.json || now < next_) return;
        next_ = now + std::chrono::milliseconds(100);
        context_.terminal.err << "\r\033[K" << what << ", " << PercentText(done, total) << std::flush;
        drawn_ = true;
    }

private:
    const Context& context_;
    std::chrono::steady_clock::time_point next_ =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    bool drawn_ = false;
};

std::string KindText(const Change& change) {
    switch (change.kind) {
        case Change::Kind::Added:
            return "added";
        case Change::Kind::Deleted:
            return "deleted";
        case Change::Kind::Changed:
            return "changed";
        case Change::Kind::Renamed:
            return change.contentToo ? "renamed, changed" : "renamed";
        case Change::Kind::Settings:
            return "settings";
    }
    return {};
}

// JSON is UTF-8; names on ext need not be.
std::string JsonPath(const std::string& path) {
    std::u16string ignored;
    return posix::FromUtf8(path, ignored, posix::Halves::Refused) ? path : Printable(path);
}

Json ChangeJson(const Change& change) {
    Json json = {{"change", change.kind == Change::Kind::Renamed ? "renamed" : KindText(change)},
                 {"path", JsonPath(change.path)}};
    if (!change.pathBefore.empty()) json["pathBefore"] = JsonPath(change.pathBefore);
    if (change.kind == Change::Kind::Renamed) json["contentChanged"] = change.contentToo;
    json["type"] = change.type == inspect::FileRecord::Type::Directory ? "folder"
                   : change.type == inspect::FileRecord::Type::File    ? "file"
                                                                       : "other";
    if (change.kind != Change::Kind::Added) json["bytesBefore"] = change.sizeBefore;
    if (change.kind != Change::Kind::Deleted) json["bytes"] = change.size;
    json["storageBytes"] = change.storage;
    return json;
}

Json ReportJson(VolumeStates& states, const inspect::ChangeReport& report) {
    Json files = Json::array();
    for (const Change& change : report.changes) files.push_back(ChangeJson(change));
    Json json = {{"volume", ToUtf8(states.Name())},          {"protected", states.Protected()},
                 {"inUse", !states.Facts().clients.empty()}, {"changes", files},
                 {"storageBytes", report.fileStorage},       {"storageUsedBytes", states.Used()},
                 {"damagedRecords", report.damagedRecords}};
    if (!report.unwritten.empty()) json["unwritten"] = report.unwritten;
    return json;
}

Row LineOf(const Change& change) {
    const bool folder = change.type == inspect::FileRecord::Type::Directory;
    const bool gone = change.kind == Change::Kind::Deleted;
    std::string path = Printable(change.path) + (folder ? "/" : "");
    if (!change.pathBefore.empty()) path = Printable(change.pathBefore) + " -> " + path;
    std::string size = SizeText(gone ? change.sizeBefore : change.size);
    if (change.kind == Change::Kind::Changed && change.sizeBefore != change.size)
        size = SizeText(change.sizeBefore) + " -> " + size;
    return {KindText(change), gone || folder ? "-" : SizeText(change.storage), folder ? "-" : size, path};
}

std::string ReportText(VolumeStates& states, const inspect::ChangeReport& report) {
    std::string text = ShortName(states.Name()) + ": " + CountText(report.changes.size(), "change") +
                       " since the fixed state.\n";
    if (!states.Facts().clients.empty())
        text += "In use by " + states.Facts().clients +
                ": this is what stands on the disk now, as after a power cut.\n";
    if (!report.unwritten.empty()) text += "Note: " + report.unwritten + ".\n";
    if (report.damagedRecords != 0)
        text += "Note: left out is what makes no sense: " + CountText(report.damagedRecords, "record") + ".\n";
    std::vector<Row> rows = {{"CHANGE", "STORAGE", "SIZE", "FILE"}};
    for (const Change& change : report.changes) rows.push_back(LineOf(change));
    if (rows.size() > 1) text += TableText(rows);
    const std::uint64_t rest = states.Used() > report.fileStorage ? states.Used() - report.fileStorage : 0;
    text += "Storage: " + SizeText(states.Used()) + " used, " + SizeText(report.fileStorage) +
            " by these files, " + SizeText(rest) +
            " by the file system's own tables and what is no file's any more.\n";
    return text;
}

}  // namespace

int ShowChanges(const Context& context, const ChangesOptions& options) {
    std::ostream& out = context.terminal.out;
    VolumeStates states(context, options.volume);
    if (!states.Protected() && (!context.json || !options.diff.empty())) {
        out << ShortName(states.Name()) << " is not protected: what is written changes the volume itself.\n";
        return kExitOk;
    }
    if (!options.diff.empty()) return ShowDifference(context, states, options.diff);
    inspect::ChangeReport report;
    if (states.Protected()) {
        ProgressLine line(context);
        inspect::StatesOfVolume both = states.Both();
        both.thorough = options.thorough;
        report = inspect::FindChanges(
            both, states.Redirected(), inspect::IsOwnFile,
            [&](const char* what, std::uint64_t done, std::uint64_t total) { line.Draw(what, done, total); });
        states.RequireSameBoot();
    }
    if (context.json)
        out << ReportJson(states, report).dump(2) << "\n";
    else
        out << ReportText(states, report);
    return kExitOk;
}

}  // namespace ctl
