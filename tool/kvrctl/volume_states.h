// A volume of a hosted machine in its two states: the fixed one, as the disk below the driver holds it, and the
// present one, as its users see it. Read through the control socket in short requests, so that nobody waits.
#pragma once
#include <memory>
#include "inspect/changes.h"
#include "tool/kvrctl/commands.h"

namespace ctl {

// One state of it. A failure of the machine is a read that fails.
class StateView final : public inspect::VolumeView {
public:
    using Reader = Bytes (World::*)(const std::u16string&, std::uint64_t, std::uint32_t);
    StateView(World& world, std::u16string volume, const VolumeFacts& facts, Reader read)
        : world_(world), volume_(std::move(volume)), facts_(facts), read_(read) {}

    std::uint64_t Size() const override { return facts_.bytes; }
    std::uint32_t SectorBytes() const override { return facts_.sectorBytes; }
    [[nodiscard]] bool Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    std::string Trouble() const override { return trouble_; }

private:
    World& world_;
    std::u16string volume_;
    VolumeFacts facts_;
    Reader read_;
    std::string trouble_;
};

class VolumeStates {
public:
    // Finds the volume that the user means and opens both states. Throws Failure; where the volume is not
    // protected in this boot there is nothing to open, and Protected() says so.
    VolumeStates(const Context& context, const std::string& words);

    bool Protected() const { return protected_; }
    const std::u16string& Name() const { return name_; }
    const VolumeFacts& Facts() const { return facts_; }
    inspect::StatesOfVolume Both() { return {*fixedView_, *fixed_, *presentView_, *present_}; }
    std::uint64_t Used() const { return used_; }  // bytes of storage, by the driver
    // What the driver's map redirected when it was saved last; empty when it cannot be read now.
    std::vector<inspect::Extent> Redirected();
    // Throws Failure when the machine was booted since this began, or the connection was lost.
    void RequireSameBoot();

private:
    World& world_;
    std::u16string name_;
    bool protected_ = false;
    std::uint64_t used_ = 0;
    VolumeFacts facts_;
    std::string boot_;
    std::unique_ptr<StateView> fixedView_, presentView_;
    std::unique_ptr<inspect::FileTable> fixed_, present_;
};

}  // namespace ctl
