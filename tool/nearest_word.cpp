#include "tool/nearest_word.h"
#include <algorithm>
#include <CLI/CLI.hpp>

namespace ctl {
namespace {

// Letters that differ, are missing, too many or swapped with their neighbour.
std::size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> rows(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            rows[i][j] =
                std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, rows[i - 1][j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
        }
    }
    return rows[a.size()][b.size()];
}

void AddWords(const CLI::App& app, std::vector<std::string>& words) {
    for (const CLI::Option* option : app.get_options())
        for (const std::string& name : option->get_lnames()) words.push_back("--" + name);
    for (const CLI::App* command : app.get_subcommands(nullptr)) words.push_back(command->get_name());
}

}  // namespace

std::string NearestWord(const std::string& word, const CLI::App& app) {
    std::vector<std::string> words;
    const CLI::App* chosen = &app;
    for (AddWords(app, words); !chosen->get_subcommands().empty(); AddWords(*chosen, words))
        chosen = chosen->get_subcommands().front();
    std::string best;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const std::string& candidate : words) {
        const std::size_t distance = Distance(word, candidate);
        if (distance >= least) continue;
        least = distance;
        best = candidate;
    }
    return best;
}

}  // namespace ctl
