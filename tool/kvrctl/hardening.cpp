// hardening.
#include "tool/kvrctl/hardening.h"
#include <nlohmann/json.hpp>
#include "tool/kvrctl/commands.h"
#include "client/failure.h"

namespace ctl {
namespace {

std::string OnOrOff(bool on) {
    return on ? "on" : "off";
}

}  // namespace

Hardening QueryHardening(World& world) {
    const std::optional<Bytes> value = world.ReadRegistry(kHardening);
    return {world.HardeningNow(), value && IsSwitchedOn(*value)};
}

std::string HardeningText(const Hardening& hardening) {
    const std::string then = OnOrOff(hardening.nextBoot);
    if (!hardening.now) return "Hardening is " + then + " for the next boot, and now if it was so at the last.";
    if (*hardening.now == hardening.nextBoot) return "Hardening is " + then + ".";
    return "Hardening is " + OnOrOff(*hardening.now) + ", from the next boot on " + then + ".";
}

nlohmann::ordered_json HardeningJson(const Hardening& hardening) {
    nlohmann::ordered_json json = {{"now", nullptr}, {"nextBoot", hardening.nextBoot}};
    if (hardening.now) json["now"] = *hardening.now;
    return json;
}

int ShowHardening(const Context& context) {
    const Hardening hardening = QueryHardening(context.world);
    context.terminal.out << (context.json ? HardeningJson(hardening).dump(2) : HardeningText(hardening))
                         << "\n";
    return kExitOk;
}

int SetHardening(const Context& context, bool on) {
    context.world.WriteSwitch(kHardening, on);
    if (context.json) return ShowHardening(context);
    context.terminal.out << "Hardening is set to " << OnOrOff(on) << ". It holds from "
                         << context.world.NextBoot() << " on.\n";
    return kExitOk;
}

}  // namespace ctl
