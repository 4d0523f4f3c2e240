/// What the agent runs in place of systemctl, ip and nft: units are files, and rule files are recorded instead of loaded.
///
/// /commands/log lists the command lines that were run. /commands/loads contains each rule file that nft was told to load,
/// /commands/units a file for each running server with the time of its start, and /commands/started a copy of the
/// configuration file with which each server was started. If /commands/kill contains a process ID and a number N, the Nth
/// command kills that process. If /commands/fail contains two numbers N and COUNT, the COUNT commands from the Nth on fail
/// without having any effect.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

namespace {

constexpr char server_files[] = "/var/opt/norvo/norvossh/sshd_config_";
constexpr char unit_files[] = "/etc/systemd/system/";
constexpr char unit_prefix[] = "sshd_service_";

std::string read_file(const std::string& path) {
    std::string text;
    FILE* file = fopen(path.c_str(), "re");
    char buffer[4096];
    while (file != nullptr) {
        const size_t size = fread(buffer, 1, sizeof buffer, file);
        text.append(buffer, size);
        if (size == 0) {
            fclose(file);
            break;
        }
    }
    return text;
}

void write_file(const std::string& path, const std::string& text, int flags) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fprintf(stderr, "%s: %s\n", path.c_str(), strerror(errno));
        _exit(126);
    }
    close(fd);
}

/// Kills the agent if this is the command at which that is wanted.
void kill_agent() {
    const std::string wanted = read_file("/commands/kill");
    int process = 0;
    int left = 0;
    if (sscanf(wanted.c_str(), "%d %d", &process, &left) != 2) {
        return;
    }
    if (left > 1) {
        write_file("/commands/kill", std::to_string(process) + ' ' + std::to_string(left - 1), O_TRUNC);
        return;
    }
    unlink("/commands/kill");
    kill(process, SIGKILL);
}

/// Whether this is a command that is to fail.
bool must_fail() {
    const std::string wanted = read_file("/commands/fail");
    int first = 0;
    int count = 0;
    if (sscanf(wanted.c_str(), "%d %d", &first, &count) != 2 || count == 0) {
        return false;
    }
    const bool fails = first <= 1;
    write_file("/commands/fail",
               fails ? "1 " + std::to_string(count - 1) : std::to_string(first - 1) + ' ' + std::to_string(count),
               O_TRUNC);
    return fails;
}

// --- systemctl -------------------------------------------------------------------------------------------------------

std::string unit_name(const char* word) {
    const std::string name = word;
    const std::string suffix = ".service";
    return name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0
               ? name.substr(0, name.size() - suffix.size())
               : name;
}

int start_unit(const std::string& unit) {
    if (access((unit_files + unit + ".service").c_str(), F_OK) != 0) {
        return 5;
    }
    const std::string vrf = unit.substr(sizeof unit_prefix - 1);
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    write_file("/commands/units/" + unit, std::to_string(now.tv_sec * 1000000LL + now.tv_nsec / 1000), O_TRUNC);
    write_file("/commands/started/" + vrf, read_file(server_files + vrf), O_TRUNC);
    return 0;
}

bool is_active(const std::string& unit) {
    return access(("/commands/units/" + unit).c_str(), F_OK) == 0;
}

/// Prints the running units' properties or, if they are only to be listed, a line for each.
void show_units(bool lists) {
    constexpr char line[] = "%s.service loaded active running server %s\n";
    constexpr char properties[] =
        "Id=%s.service\nLoadState=loaded\nActiveState=active\nSubState=running\nResult=success\nMainPID=0\n"
        "ExecMainStartTimestampMonotonic=%s\n\n";
    DIR* folder = opendir("/commands/units");
    while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
        if (entry->d_name[0] != '.') {
            const std::string started = read_file(std::string("/commands/units/") + entry->d_name);
            printf(lists ? line : properties, entry->d_name, started.c_str());
        }
    }
    if (folder != nullptr) {
        closedir(folder);
    }
}

int change_unit(const std::string& verb, const std::string& unit) {
    if (verb == "restart" || verb == "start") {
        return start_unit(unit);
    }
    if (verb == "stop") {
        unlink(("/commands/units/" + unit).c_str());
    } else if (verb == "is-active") {
        puts(is_active(unit) ? "active" : "inactive");
        return is_active(unit) ? 0 : 3;
    }
    return 0;
}

/// The tests fail, so that nobody has to guess why the agent does not like an answer.
int fail_as_unknown(int argc, char** argv) {
    std::string line;
    for (int i = 0; i < argc; i++) {
        line += std::string(i == 0 ? "" : " ") + argv[i];
    }
    write_file("/commands/unknown", line, O_TRUNC);
    return 1;
}

bool is_known(const std::string& verb) {
    constexpr const char* verbs[] = {"daemon-reload", "is-active", "list-units", "reset-failed",
                                     "restart",       "show",      "start",      "stop"};
    return std::find(std::begin(verbs), std::end(verbs), verb) != std::end(verbs);
}

int systemctl(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    if (!is_known(verb)) {
        return fail_as_unknown(argc, argv);
    }
    if (verb == "show" || verb == "list-units") {
        show_units(verb == "list-units");
        return 0;
    }
    int status = 0;
    for (int i = 2; i < argc; i++) {
        if (strncmp(argv[i], unit_prefix, sizeof unit_prefix - 1) == 0) {
            const int result = change_unit(verb, unit_name(argv[i]));
            status = result != 0 ? result : status;
        }
    }
    return status;
}

// --- ip and nft ------------------------------------------------------------------------------------------------------

void list_namespaces() {
    DIR* folder = opendir("/run/netns");
    while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
        if (entry->d_name[0] != '.') {
            puts(entry->d_name);
        }
    }
    if (folder != nullptr) {
        closedir(folder);
    }
}

/// "netns list", "netns exec NAMESPACE /usr/sbin/nft -f FILE"
int ip(int argc, char** argv) {
    if (argc > 2 && strcmp(argv[2], "list") == 0) {
        list_namespaces();
        return 0;
    }
    if (argc != 7 || strcmp(argv[2], "exec") != 0 || strcmp(argv[5], "-f") != 0) {
        return fail_as_unknown(argc, argv);
    }
    if (access((std::string("/run/netns/") + argv[3]).c_str(), F_OK) != 0) {
        return 1;
    }
    const std::string text = read_file(argv[6]);
    write_file("/commands/loads", std::string(argv[3]) + ' ' + std::to_string(text.size()) + '\n' + text, O_APPEND);
    return 0;
}

/// Accepts every list, and refuses to load rules for a comparison with the kernel, which has none here.
int nft(int argc, char** argv) {
    char buffer[4096];
    while (fread(buffer, 1, sizeof buffer, stdin) > 0) {
    }
    return argc > 1 && strcmp(argv[1], "-c") == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const char* slash = strrchr(argv[0], '/');
    const std::string name = slash != nullptr ? slash + 1 : argv[0];
    std::string line = name;
    for (int i = 1; i < argc; i++) {
        line += std::string(" ") + argv[i];
    }
    write_file("/commands/log", line + '\n', O_APPEND);
    if (name != "nft") {
        kill_agent();
        if (must_fail()) {
            return 1;
        }
    }
    const int status = name == "systemctl" ? systemctl(argc, argv) : name == "ip" ? ip(argc, argv) : nft(argc, argv);
    return fflush(stdout) == 0 ? status : 1;
}
