// Plays the stories on the host kernel: all of the list, or the one that is named.
#include <cstdio>
#include <cstring>
#include "tests/second_kernel/stage.h"
#include "tests/second_kernel/stories/list.h"

namespace {

bool Play(const Story& story) {
    std::printf("story %s: ", story.name);  // stands there, whatever ends the program
    stage::BeginStory();
    for (ULONG boot = 0; boot < story.boots.size() && stage::Failures().empty(); ++boot) {
        stage::BeginBoot(boot);
        story.boots[boot]();
        stage::EndBoot();
    }
    if (stage::Failures().empty()) {
        std::printf("holds\n");
        return true;
    }
    std::printf("FAILED (%s)\n%s  the driver's last diagnostics before the first failure:\n%s", story.proves,
                stage::Failures().c_str(), stage::Diagnostics().c_str());
    return false;
}

}  // namespace

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const Story* own = stage::OwnStory();
    bool found = count > 1 && own != nullptr && std::strcmp(arguments[1], own->name) == 0;
    bool holds = !found || Play(*own);
    for (const Story* story : kStories) {
        if (count > 1 && std::strcmp(arguments[1], story->name) != 0) continue;
        found = true;
        holds = Play(*story) && holds;
    }
    if (!found) std::fprintf(stderr, "test_stories: no story is called %s\n", arguments[1]);
    return found && holds ? 0 : 1;
}
