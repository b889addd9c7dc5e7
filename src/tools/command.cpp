// SPDX-License-Identifier: GPL-3.0-only
// Runs a command for each item. The item is in a memory file, so that a command that does not read
// it blocks nothing.
#include "tools/command.h"

#include <glib.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

// A descriptor at the beginning of the text; negative when there is none left.
int fileOf(const std::string& text) {
    const int file = memfd_create("item", MFD_CLOEXEC);
    size_t written = 0;
    while (file >= 0 && written < text.size()) {
        const ssize_t count = write(file, text.data() + written, text.size() - written);
        if (count < 0) {
            close(file);
            return -1;
        }
        written += static_cast<size_t>(count);
    }
    if (file >= 0)
        lseek(file, 0, SEEK_SET);
    return file;
}

std::string describeExit(const std::string& name, int status) {
    if (WIFSIGNALED(status))
        return name + " was killed by signal " + std::to_string(WTERMSIG(status));
    return name + " exited with code " + std::to_string(WEXITSTATUS(status));
}

struct End {
    BusClient& client;
    bool reached = false;
    int status = 0;
};

void onEnd(GPid, gint status, gpointer data) {
    auto* end = static_cast<End*>(data);
    end->reached = true;
    end->status = status;
    end->client.quit();
}

}  // namespace

bool Command::exists() const {
    g_autofree char* path = g_find_program_in_path(m_words[0].c_str());
    return path != nullptr;
}

// Negative, with the error in errno, when it could not be started.
pid_t Command::start(int input) {
    std::vector<char*> words;
    for (std::string& word : m_words)
        words.push_back(word.data());
    words.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    sigset_t signals;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    // This program ignores SIGPIPE; the command should not inherit that.
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t process = -1;
    errno = posix_spawnp(&process, words[0], &files, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return errno ? -1 : process;
}

int Command::waitForEnd(BusClient& client) {
    End end{.client = client};
    const guint watch = g_child_watch_add(m_process, onEnd, &end);
    while (!end.reached && client.run()) {
    }
    if (end.reached)
        return end.status;
    // The bus is lost, and the main loop with it.
    g_source_remove(watch);
    while (waitpid(m_process, &end.status, 0) < 0 && errno == EINTR) {
    }
    return end.status;
}

bool Command::run(const std::string& input, BusClient& client, std::string& problem) {
    const int file = fileOf(input);
    m_process = file < 0 ? -1 : start(file);
    if (m_process < 0)
        problem = "cannot run " + m_words[0] + ": " + std::strerror(errno);
    if (file >= 0)
        close(file);
    if (m_process < 0)
        return false;
    const int status = waitForEnd(client);
    m_process = 0;
    if (status == 0)
        return true;
    problem = describeExit(m_words[0], status);
    return false;
}

void Command::signal(int number) const {
    if (m_process > 0)
        kill(m_process, number);
}
