// "wfmgr" as the daemon sees it: a listener on 0.0.0.0:8030 of the test's
// network namespace, and the one connection that the daemon makes to it.
// Single-threaded: the test drives it from its own thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sandbox_io.hpp"

namespace sandbox {

class WfmgrPeer {
public:
    static constexpr uint16_t kPort = 8030;

    // Starts listening; null, with the reason in `why`, on failure.
    static std::unique_ptr<WfmgrPeer> listen(uint16_t port = kPort, std::string* why = nullptr);
    ~WfmgrPeer();
    WfmgrPeer(const WfmgrPeer&) = delete;
    WfmgrPeer& operator=(const WfmgrPeer&) = delete;

    // Takes the next connection, replacing any earlier one.
    bool accept(Millis timeout);
    bool connected() const { return conn_fd_ >= 0; }

    bool send(std::span<const uint8_t> bytes, Millis timeout = Millis(5000));
    std::optional<Bytes> read_exact(size_t n, Millis timeout);
    // One whole message: total_len, the first 4 bytes little-endian, counts
    // the whole message, header included.
    std::optional<Bytes> read_message(Millis timeout);
    // True when the daemon sends nothing (and does not close) for `window`.
    bool quiet_for(Millis window);

    // Closes the connection; the listener stays.
    void close_connection();
    // Closes the listener; a connection stays.
    void stop_listening();

private:
    WfmgrPeer() = default;
    int listen_fd_ = -1;
    int conn_fd_ = -1;
};

}  // namespace sandbox
