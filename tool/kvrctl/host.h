// The computer on which the tool runs: where its words go, the passing of time in front of it, its files. File
// names are UTF-8.
#pragma once
#include <chrono>
#include <ostream>
#include <string>

namespace ctl {

class Terminal {
public:
    Terminal(std::ostream& output, std::ostream& errors) : out(output), err(errors) {}
    virtual ~Terminal() = default;
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Waits. False, at once, when the user has asked for the end (Ctrl-C), now or earlier.
    virtual bool Pause(std::chrono::milliseconds time) = 0;
    // From now on Ctrl-C makes Pause answer false instead of ending the program.
    virtual void CatchInterrupt() = 0;
    // Shows the question and waits for the answer; true for a yes. Only where somebody can answer (`canAsk`).
    virtual bool AskYes(const std::string& question) = 0;

    std::ostream& out;
    std::ostream& err;
    bool isTerminal = false;  // `out` is a screen: redraw
    bool colour = false;      // ... and the user has nothing against colours (NO_COLOR)
    bool canAsk = false;      // somebody reads `err` and types
    unsigned width = 80;      // of it, in characters
};

// In front of which this program runs.
class HostTerminal : public Terminal {
public:
    HostTerminal(std::ostream& output, std::ostream& errors);
    bool Pause(std::chrono::milliseconds time) override;
    void CatchInterrupt() override;
    bool AskYes(const std::string& question) override;
};

// Goes on when the user has given `option`, or says yes now. Else throws Failure that says why and names the
// option; without a terminal nobody is asked.
void RequireConsent(Terminal& terminal, bool given, const std::string& why, const std::string& option);

// Each throws Failure with the system's reason.
std::string ReadFile(const std::string& path);
std::string ReadStandardInput();
void WriteFile(const std::string& path, const std::string& bytes);

// A file of this user alone, in a folder of its own; removed with its owner unless it is to be kept.
class TemporaryFile {
public:
    TemporaryFile(const std::string& name, const std::string& bytes);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& Path() const { return path_; }
    void Keep() const { keep_ = true; }

private:
    std::string folder_, path_;
    mutable bool keep_ = false;
};

// Lets the user edit the file and returns when the editor has ended. Throws Failure when it could not run or
// failed.
void RunEditor(const std::string& path);

// A new folder of this user alone. Throws Failure.
std::string MakePrivateFolder();

}  // namespace ctl
