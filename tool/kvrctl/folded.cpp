#include "tool/kvrctl/folded.h"
#include <algorithm>

namespace ctl {

std::string Folded(const std::string& text, std::size_t indent) {
    std::string folded, line;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t room = kColumns - line.size();
        std::size_t end = std::min(text.size(), at + room);
        const std::size_t blank = end == text.size() ? text.npos : text.rfind(' ', end);
        if (blank != text.npos && blank > at) end = blank;
        folded += line + text.substr(at, end - at) + "\n";
        at = end + (end < text.size() && text[end] == ' ' ? 1 : 0);
        line.assign(indent, ' ');
    }
    return folded;
}

std::string Detail(const std::string& text) {
    return text.empty() ? "" : Folded("  " + text, 4);
}

std::string TableWith(const std::vector<Row>& rows, const std::vector<std::string>& details) {
    const std::string table = TableText(rows);
    std::string text;
    std::size_t at = 0;
    for (const std::string& detail : details) {
        const std::size_t end = table.find('\n', at) + 1;
        text += table.substr(at, end - at) + detail;
        at = end;
    }
    return text;
}

}  // namespace ctl
