// One connection to a network block device server: libnbd's handle with what is asked of it here. Its calls do
// not wait, but for Open and for looking up a host's name.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <poll.h>

struct nbd_handle;

namespace machine {

class RemoteServer {
public:
    struct Facts {
        std::uint64_t size = 0;        // bytes
        std::uint32_t leastBytes = 1;  // the unit of offsets and lengths
        std::uint32_t mostBytes = 0;   // of one request
        bool flushes = false;          // false: whatever is answered is safe
        bool readOnly = false;
        bool operator==(const Facts&) const = default;
    };
    // Called once for each request on the calling thread of Notice() or of the request, with 0 or an errno;
    // not called when the connection is destroyed before. ENOTCONN: the connection ended first. Returns 1.
    using Answer = int(void* context, int* error);

    // Connects and waits for it. Null with the library's words in `error`.
    static std::unique_ptr<RemoteServer> Open(const std::string& uri, std::string& error);
    // Begins to connect; null when that fails at once.
    static std::unique_ptr<RemoteServer> Begin(const std::string& uri);
    ~RemoteServer();
    RemoteServer(const RemoteServer&) = delete;
    RemoteServer& operator=(const RemoteServer&) = delete;

    const std::string& Uri() const { return uri_; }
    bool IsReady() const;
    bool IsGone() const;
    Facts Ask() const;  // when ready

    // The buffers last until the answer or the connection's end. False when the request cannot be sent.
    bool Read(void* buffer, std::size_t length, std::uint64_t offset, Answer* answer, void* context);
    bool Write(const void* buffer, std::size_t length, std::uint64_t offset, Answer* answer, void* context);
    bool Flush(Answer* answer, void* context);

    // What to wait for, and what to do about it.
    pollfd Waits() const;
    void Notice(short events);
    // Says good-bye to the server.
    void Leave();

private:
    RemoteServer(nbd_handle* handle, std::string uri) : handle_(handle), uri_(std::move(uri)) {}
    static nbd_handle* NewHandle();

    nbd_handle* const handle_;
    const std::string uri_;
};

}  // namespace machine
