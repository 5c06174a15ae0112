// completion: what bash needs to complete the command line, from the commands and options themselves.
#include "tool/kvrctl/completion.h"
#include <CLI/CLI.hpp>

namespace ctl {
namespace {

constexpr char kScript[] = R"(
_kvrctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local path=kvrctl machine=() i word wanted=${_kvrctl_takes[kvrctl]}
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [ "$word" = --machine ]; then
            machine=(--machine "${COMP_WORDS[++i]}")
        elif [ -n "${_kvrctl_takes[ $word]+x}" ]; then
            ((++i))
        elif [ -n "${_kvrctl_options[$path $word]+x}" ]; then
            path+=" $word"
            wanted=${_kvrctl_takes[$path]}
        elif [[ $word != -* ]]; then
            wanted=
        fi
    done
    if [ -n "${_kvrctl_takes[ $previous]+x}" ]; then
        wanted=${_kvrctl_takes[ $previous]}
    elif [[ $current == -* ]]; then
        wanted=${_kvrctl_options[$path]}
    fi
    case $wanted in
        VOLUME) wanted=$("${COMP_WORDS[0]}" "${machine[@]}" volumes --names 2>/dev/null) ;;
        FILE) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        DIR) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$wanted" -- "$current")
}
complete -F _kvrctl kvrctl
)";

// What an option's value is: VOLUME, FILE, DIR, the words to choose from, or nothing that could be completed.
std::string ValueOf(const CLI::Option& option) {
    const std::string name = option.get_name(), type = option.get_type_name();
    if (name == "VOLUME" || name == "FILE") return name;
    if (type == "FILE" || type == "DIR") return type;
    const std::size_t first = type.find('{');
    if (first == type.npos) return {};
    std::string words = type.substr(first + 1, type.find('}') - first - 1);
    std::replace(words.begin(), words.end(), ',', ' ');
    return words;
}

struct Tables {
    std::string options;  // [command]="its options"
    std::string takes;    // [command]="the word behind it", [ option]="its value"
};

void Add(std::string& table, const std::string& key, const std::string& words) {
    table += "    [\"" + key + "\"]=\"" + words + "\"\n";
}

void Walk(const CLI::App& app, const std::string& path, Tables& tables) {
    std::string options, behind;
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_positional()) {
            if (behind.empty()) behind = ValueOf(*option);
            continue;
        }
        const std::string name = "--" + option->get_lnames().at(0);
        if (option->get_items_expected_max() != 0) Add(tables.takes, " " + name, ValueOf(*option));
        if (name != "--help" && name != "--machine") options += name + " ";
    }
    for (const CLI::App* command : app.get_subcommands(nullptr)) {
        if (command->get_group().empty()) continue;
        behind += (behind.empty() ? "" : " ") + command->get_name();
        Walk(*command, path + " " + command->get_name(), tables);
    }
    Add(tables.options, path, options + "--help --machine");
    Add(tables.takes, path, behind);
}

}  // namespace

std::string CompletionScript(const CLI::App& app) {
    Tables tables;
    Walk(app, app.get_name(), tables);
    return "# Completion of kvrctl for bash: . <(kvrctl completion)\ndeclare -A _kvrctl_options=(\n" +
           tables.options + ")\ndeclare -A _kvrctl_takes=(\n" + tables.takes + ")\n" + kScript;
}

}  // namespace ctl
