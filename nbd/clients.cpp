#include "nbd/clients.h"
#include <algorithm>
#include <ctime>

namespace nbd {

std::string Client::Describe() const {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(since);
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    char time[40];
    std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S UTC", &fields);
    return who + " on export " + target.Name() + " since " + time;
}

std::size_t Clients::CountOn(unsigned volume, unsigned itsDisk) const {
    return static_cast<std::size_t>(std::count_if(
        clients_.begin(), clients_.end(), [&](const Client& client) { return client.Uses(volume, itsDisk); }));
}

std::string Clients::DescribeOn(unsigned volume, unsigned itsDisk) const {
    std::string text;
    for (const Client& client : clients_) {
        if (!client.Uses(volume, itsDisk)) continue;
        if (!text.empty()) text += ", ";
        text += client.Describe();
    }
    return text;
}

}  // namespace nbd
