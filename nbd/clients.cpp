#include "nbd/clients.h"
#include <algorithm>
#include <ctime>

namespace nbd {

std::string Client::Describe(std::size_t connections) const {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(since);
    std::tm fields{};
    gmtime_r(&seconds, &fields);
    char time[40];
    std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S UTC", &fields);
    const std::string many = connections == 1 ? "" : ", " + std::to_string(connections) + " connections,";
    return who + " on export " + target.Name() + many + " since " + time;
}

std::size_t Clients::CountOn(unsigned volume, unsigned itsDisk) const {
    return static_cast<std::size_t>(std::count_if(
        clients_.begin(), clients_.end(), [&](const Client& client) { return client.Uses(volume, itsDisk); }));
}

std::string Clients::DescribeOn(unsigned volume, unsigned itsDisk) const {
    std::string text;
    for (auto client = clients_.begin(); client != clients_.end(); ++client) {
        const auto same = [&](const Client& other) { return client->IsSame(other); };
        if (!client->Uses(volume, itsDisk) || std::any_of(clients_.begin(), client, same)) continue;
        if (!text.empty()) text += ", ";
        const auto connections = std::count_if(client, clients_.end(), same);
        text += client->Describe(static_cast<std::size_t>(connections));
    }
    return text;
}

std::vector<Client> Clients::Writers() const {
    std::vector<Client> writers;
    for (const Client& client : clients_) {
        const auto same = [&](const Client& other) { return client.IsSame(other); };
        if (client.hasWritten && std::none_of(writers.begin(), writers.end(), same)) writers.push_back(client);
    }
    return writers;
}

}  // namespace nbd
