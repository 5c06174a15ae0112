#include "tool/kvrhost/volume_lines.h"
#include <string_view>
#include "posix/utf.h"
#include "tool/text.h"

namespace tool {

std::string VolumeLines(const std::vector<wire::VolumeText>& volumes) {
    std::vector<ctl::Row> rows;
    for (const wire::VolumeText& volume : volumes) {
        const std::u16string_view name = volume.name.text;
        if (std::string_view(volume.what).starts_with("the machine's own")) continue;
        const std::string label = volume.label[0] != 0 ? "\"" + std::string(volume.label) + "\"" : "-";
        rows.push_back({"  " + posix::ToUtf8(name.substr(name.rfind(u'\\') + 1)), label,
                        ctl::SizeText(volume.bytes), volume.fileSystem[0] != 0 ? volume.fileSystem : "-",
                        volume.what});
    }
    return rows.empty() ? "" : "Its volumes, by name, label, size and file system:\n" + ctl::TableText(rows);
}

}  // namespace tool
