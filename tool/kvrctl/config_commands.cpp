// config get, set, check, edit.
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_store.h"
#include "client/failure.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

// UTF-8, with or without a byte-order mark, or UTF-16 little-endian with one.
std::u16string Decode(const std::string& bytes, const std::string& what) {
    if (bytes.starts_with("\xFF\xFE")) {
        if (bytes.size() % 2 != 0) throw Failure(what + " is UTF-16 that ends in the middle of a character");
        std::u16string text;
        for (std::size_t i = 2; i < bytes.size(); i += 2)
            text += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                          static_cast<unsigned char>(bytes[i + 1]) << 8);
        return text;
    }
    return FromUtf8(bytes.starts_with("\xEF\xBB\xBF") ? bytes.substr(3) : bytes, what);
}

std::u16string ReadText(const std::string& file) {
    const std::string what = file == "-" ? "the standard input" : "'" + file + "'";
    return Decode(file == "-" ? ReadStandardInput() : ReadFile(file), what);
}

std::string SeverityText(Severity severity) {
    return severity == Severity::Error ? "error" : "warning";
}

std::string FindingsText(const std::vector<Finding>& findings, const std::string& name) {
    std::string text;
    for (const Finding& finding : findings)
        text += name + ":" + std::to_string(finding.line) + ": " + SeverityText(finding.severity) + ": " +
                finding.text + "\n";
    return text;
}

int TellFindings(Terminal& terminal, bool json, const std::vector<Finding>& findings, const std::string& name) {
    if (json) {
        Json list = Json::array();
        for (const Finding& finding : findings)
            list.push_back(
                {{"line", finding.line}, {"severity", SeverityText(finding.severity)}, {"text", finding.text}});
        terminal.out << list.dump(2) << "\n";
    } else {
        terminal.out << FindingsText(findings, name);
        if (findings.empty()) terminal.out << name << ": the driver takes it as it reads\n";
    }
    return HasErrors(findings) ? kExitFailed : kExitOk;
}

// Warnings are shown, errors refused; with `force`, shown as well.
void RequireSound(const Context& context, const std::u16string& text, const std::string& name, bool force) {
    const Clock clock = ClockOf(context.world);
    const std::vector<Finding> findings = CheckConfig(text, &clock);
    context.terminal.err << FindingsText(findings, name);
    if (HasErrors(findings) && !force)
        throw Failure("the text has errors and was not stored (--force stores it all the same)");
}

}  // namespace

int ConfigGet(const Context& context) {
    const std::u16string text = ReadStored(context);
    context.terminal.out << ToUtf8(text);
    if (text.empty()) context.terminal.err << "kvrctl: there is no configuration yet\n";
    return kExitOk;
}

int ConfigSet(const Context& context, const SetOptions& options) {
    const std::u16string text = ReadText(options.file);
    RequireSound(context, text, options.file == "-" ? "input" : options.file, options.force);
    Store(context, ReadStored(context), text, {options.dryRun, options.dropChanges});
    return kExitOk;
}

int ConfigCheckFile(Terminal& terminal, const std::string& file, bool json) {
    return TellFindings(terminal, json, CheckConfig(ReadText(file)), file == "-" ? "input" : file);
}

int ConfigCheckStored(const Context& context) {
    const Clock clock = ClockOf(context.world);
    return TellFindings(context.terminal, context.json, CheckConfig(ReadStored(context), &clock), "stored");
}

// What the user wrote is never lost: whatever fails, a changed file stays and is named.
int ConfigEdit(const Context& context, const SetOptions& options) {
    const std::u16string before = ReadStored(context);
    const std::string shown = ToUtf8(before);
    const TemporaryFile file("kvr.cfg.txt", shown);
    try {
        RunEditor(file.Path());
        const std::u16string after = ReadText(file.Path());
        if (after == before) {
            context.terminal.out << "Nothing was changed.\n";
            return kExitOk;
        }
        RequireSound(context, after, "kvr.cfg", options.force);
        Store(context, before, after, {false, options.dropChanges});
    } catch (const Failure& failure) {
        if (ReadFile(file.Path()) == shown) throw;
        file.Keep();
        throw Failure(std::string(failure.what()) + "; your text is in " + file.Path(), failure.ExitCode());
    }
    return kExitOk;
}

}  // namespace ctl
