// tarnhold-sim's control sockets on GLib's default main context: each
// connection's lines go to the shared control commands.
#include "tarnholdSim.h"

#include <glib-unix.h>
#include <glib.h>

#include <cerrno>
#include <map>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

struct tarnholdSimListener {
    std::string path;
    int fd;
    guint source;
};

struct tarnholdSimConnection {
    std::string pending;
    guint source;
};

struct {
    std::vector<tarnholdSimListener> listeners;
    std::map<int, tarnholdSimConnection> connections;
} tarnholdSimControlSocketPrivateMembers;

auto &sockets = tarnholdSimControlSocketPrivateMembers;

gboolean __tarnholdSimConnectionReadable(gint fd, GIOCondition, gpointer)
{
    char buffer[1024];
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
        return G_SOURCE_CONTINUE;
    }
    auto it = sockets.connections.find(fd);
    bool keep = n > 0 && it != sockets.connections.end();
    if (keep) {
        std::string replies;
        // A line too long is answered, then the connection is dropped.
        keep = tarnholdSimControlFeed(it->second.pending, std::string_view(buffer, static_cast<size_t>(n)), replies);
        keep = tarnholdSimControlWriteAll(fd, replies) && keep;
    }
    if (!keep) {
        if (it != sockets.connections.end()) {
            sockets.connections.erase(it);
        }
        ::close(fd);
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

gboolean __tarnholdSimListenerReadable(gint fd, GIOCondition, gpointer)
{
    const int conn = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn >= 0) {
        const guint source = g_unix_fd_add(conn, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR),
                                           &__tarnholdSimConnectionReadable, nullptr);
        sockets.connections[conn] = {std::string(), source};
    }
    return G_SOURCE_CONTINUE;
}

} // namespace

bool tarnholdSimControlListen(const std::string &path, std::string &error)
{
    const int fd = tarnholdSimControlListenSocket(path, error);
    if (fd < 0) {
        return false;
    }
    const guint source = g_unix_fd_add(fd, G_IO_IN, &__tarnholdSimListenerReadable, nullptr);
    sockets.listeners.push_back({path, fd, source});
    return true;
}

void tarnholdSimControlStop()
{
    for (const auto &[fd, connection] : sockets.connections) {
        g_source_remove(connection.source);
        ::close(fd);
    }
    sockets.connections.clear();
    for (const auto &listener : sockets.listeners) {
        g_source_remove(listener.source);
        ::close(listener.fd);
        ::unlink(listener.path.c_str());
    }
    sockets.listeners.clear();
}
