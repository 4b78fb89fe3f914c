#include "Host/Server/ServerMain.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <iostream>
#include <stdexcept>

#include "Host/Server/LoopstoreServer.h"
#include "Platform/Logging/LoggingManager.h"

namespace loopstore::host {

namespace {

// The pipe RunServer waits on. Created once and never closed, so that a
// RequestStop racing with the end of RunServer never writes to a closed or
// reused descriptor; a signal handler may only write to it, hence a pipe and
// not a condition. Both ends are non-blocking.
std::atomic<int> stopWriteFd{-1};
std::atomic<bool> running{false};

int StopReadFd() {
    static const int readFd = [] {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::runtime_error("Cannot create the stop pipe");
        stopWriteFd.store(fds[1]);
        return fds[0];
    }();
    return readFd;
}

// Forgets requests made while no server was waiting.
void Drain(int readFd) {
    char bytes[64];
    while (read(readFd, bytes, sizeof bytes) > 0) {
    }
}

void OnStopSignal(int) {
    RequestStop();
}

void ConfigureLogging(const ServerOptions& options) {
    using tav::mr::logging::LoggingManager;
    if (options.logConfig.empty())
        LoggingManager::ConfigureConsole(30);
    else
        LoggingManager::Configure(options.logConfig);
}

// Installs the stop handlers for SIGTERM and SIGINT and restores the old ones
// when it goes.
class StopSignals {
  public:
    StopSignals() {
        struct sigaction action = {};
        action.sa_handler = OnStopSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGTERM, &action, &oldTerm_);
        sigaction(SIGINT, &action, &oldInt_);
    }
    ~StopSignals() {
        sigaction(SIGTERM, &oldTerm_, nullptr);
        sigaction(SIGINT, &oldInt_, nullptr);
    }

  private:
    struct sigaction oldTerm_ = {};
    struct sigaction oldInt_ = {};
};

// Blocks until RequestStop writes to the pipe.
void WaitForStop(int readFd) {
    pollfd wait = {readFd, POLLIN, 0};
    while (poll(&wait, 1, -1) < 0 && errno == EINTR) {
    }
    Drain(readFd);
}

}  // namespace

void RequestStop() {
    const int fd = stopWriteFd.load();
    if (!running.load() || fd < 0)
        return;
    const char byte = 's';
    // A full pipe already holds a request; nothing more to say.
    [[maybe_unused]] ssize_t written = write(fd, &byte, 1);
}

int RunServer(const ServerOptions& options) {
    int readFd = -1;
    try {
        ConfigureLogging(options);
        readFd = StopReadFd();
    } catch (const std::exception& e) {
        std::cerr << "loopstore: " << e.what() << std::endl;
        return 2;
    }
    StopSignals signals;
    LoopstoreServer server(options);
    Drain(readFd);
    running.store(true);
    int code = 0;
    try {
        server.Start();
        std::cerr << "loopstore: listening on " << options.listenAddress << " (port "
                  << server.Port() << ")" << std::endl;
        if (!options.httpAddress.empty())
            std::cerr << "loopstore: HTTP on " << options.httpAddress << " (port "
                      << server.HttpPort() << ")" << std::endl;
        WaitForStop(readFd);
        server.Stop();
    } catch (const std::exception& e) {
        std::cerr << "loopstore: " << e.what() << std::endl;
        code = 1;
    }
    running.store(false);
    return code;
}

}  // namespace loopstore::host
