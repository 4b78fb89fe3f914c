#include "Host/Cli/TemporaryOutput.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {

// What the handler needs, prepared beforehand: it may only call
// async-signal-safe functions.
char gTemporary[4096];
char gMessage[4096 + 64];
size_t gMessageLength = 0;

std::string TemporaryName(const std::string& path) {
    const std::filesystem::path final(path);
    const std::string name =
        "." + final.filename().string() + "." + std::to_string(::getpid()) + ".part";
    return (final.parent_path() / name).string();
}

}  // namespace

TemporaryOutput::TemporaryOutput(const std::string& path)
    : final_(path), temporary_(TemporaryName(path)) {
    if (temporary_.size() >= sizeof gTemporary)
        throw CliError("output path too long: " + path);
    std::snprintf(gTemporary, sizeof gTemporary, "%s", temporary_.c_str());
    const int length = std::snprintf(gMessage, sizeof gMessage,
                                     "\nloopstore: interrupted, %s not written\n", path.c_str());
    gMessageLength = std::min(sizeof gMessage - 1, static_cast<size_t>(std::max(length, 0)));
    struct sigaction action = {};
    action.sa_handler = &TemporaryOutput::OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &oldInt_);
    sigaction(SIGTERM, &action, &oldTerm_);
}

TemporaryOutput::~TemporaryOutput() {
    sigaction(SIGINT, &oldInt_, nullptr);
    sigaction(SIGTERM, &oldTerm_, nullptr);
    if (!committed_)
        ::unlink(temporary_.c_str());
    gTemporary[0] = '\0';
}

void TemporaryOutput::Commit() {
    if (::rename(temporary_.c_str(), final_.c_str()) != 0)
        throw CliError("cannot rename " + temporary_ + " to " + final_ + ": " +
                       std::strerror(errno));
    committed_ = true;
}

void TemporaryOutput::OnSignal(int signal) {
    if (gTemporary[0] != '\0')
        ::unlink(gTemporary);
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, gMessage, gMessageLength);
    ::_exit(128 + signal);
}

}  // namespace loopstore::cli
