#include "scratch_root.h"

#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace scratch_root {
namespace {

constexpr char entered_variable[] = "SCRATCH_ROOT_ENTERED";
constexpr int failure_status = 125;

/// Mount point where the new root is assembled, on a temporary file system.
constexpr char assembly[] = "/tmp";
constexpr char new_root[] = "/tmp/root";

/// Directories that are empty in every scratch root.
constexpr const char* fresh_directories[] = {
    "/run",
    "/tmp",
    "/var/tmp",
    "/var/opt",
    "/var/lib/ssh_cfg_agent",
    "/etc/systemd/system",
    "/etc/pam.d",
    "/etc/ssh_cfg_agent",
    "/pkg",
};

/// Directories that must belong to the user inside, so that entries can be added and removed even if another user owns
/// the machine's root.
constexpr const char* owned_directories[] = {"/etc", "/usr", "/usr/bin", "/usr/sbin", "/usr/lib", "/var", "/var/lib"};

constexpr const char* device_files[] = {"null", "zero", "full", "random", "urandom", "tty"};

[[noreturn]] void give_up(const char* step, const std::string& object) {
    fprintf(stderr, "scratch root: %s %s: %s\n", step, object.c_str(), strerror(errno));
    fprintf(stderr, "The tests need root, or a kernel that lets an ordinary user make a user namespace.\n");
    fflush(stderr);
    _exit(failure_status);
}

void require(int result, const char* step, const std::string& object) {
    if (result < 0) {
        give_up(step, object);
    }
}

void write_process_file(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    require(fd, "cannot open", path);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        give_up("cannot write", path);
    }
    close(fd);
}

/// Maps the calling user to root inside a new user namespace.
void become_root_inside(uid_t uid, gid_t gid) {
    write_process_file("/proc/self/setgroups", "deny");
    write_process_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_process_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

/// Returns whether a user namespace was needed.
bool unshare_namespaces() {
    constexpr int flags = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS;
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (uid == 0 && unshare(flags) == 0) {
        return false;
    }
    require(unshare(flags | CLONE_NEWUSER), "cannot make", "namespaces");
    become_root_inside(uid, gid);
    return true;
}

/// Creates a directory and its parents if they are missing.
void make_directory(const std::string& path, mode_t mode = 0755) {
    std::error_code error;
    if (fs::create_directories(path, error)) {
        chmod(path.c_str(), mode);
    } else if (error || !fs::is_directory(path)) {
        errno = error.value();
        give_up("cannot make directory", path);
    }
}

void mount_temporary(const std::string& path, const char* options) {
    require(mount("scratch", path.c_str(), "tmpfs", 0, options), "cannot mount", path);
}

void bind_file(const std::string& source, const std::string& target) {
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    require(fd, "cannot make", target);
    close(fd);
    require(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), "cannot bind", source);
}

/// A directory of the machine that stays reachable while another file system is mounted over it.
struct held_directory {
    std::string path;
    int tree;
};

void make_tree_read_only(int tree, const std::string& path) {
    struct mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    require(mount_setattr(tree, "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes), "cannot protect",
            path);
}

held_directory hold(const std::string& path, bool read_only) {
    const unsigned int flags = OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE;
    const int tree = open_tree(AT_FDCWD, path.c_str(), flags);
    require(tree, "cannot open", path);
    if (read_only) {
        make_tree_read_only(tree, path);
    }
    return {path, tree};
}

void put_back(const held_directory& held) {
    const std::string target = new_root + held.path;
    make_directory(target);
    require(move_mount(held.tree, "", AT_FDCWD, target.c_str(), MOVE_MOUNT_F_EMPTY_PATH), "cannot show", held.path);
    close(held.tree);
}

/// The options of the overlay at `path` in the new root (empty for the root itself).
std::string overlay_options(const std::string& path, const char* further) {
    const std::string upper = std::string(assembly) + "/upper" + path;
    const std::string work = std::string(assembly) + "/work" + path;
    make_directory(upper);
    make_directory(work);
    return "lowerdir=" + path + "/,upperdir=" + upper + ",workdir=" + work + further;
}

void prepare_assembly() {
    mount_temporary(assembly, "mode=0755");
    for (const char* directory : owned_directories) {
        make_directory(std::string(assembly) + "/upper" + directory);
    }
    for (const char* directory : fresh_directories) {
        make_directory(std::string(assembly) + "/upper" + directory);
    }
    make_directory(new_root);
}

void copy_entry(const fs::path& source, const fs::path& target) {
    std::error_code error;
    fs::copy(source, target, fs::copy_options::copy_symlinks, error);  // Unreadable entries are omitted.
}

/// Mounts a directory of the machine in a new root that is not an overlay: as an overlay or, if the kernel refuses that
/// because of mounts inside it, entry by entry.
void show_directory(const std::string& path) {
    const std::string target = new_root + path;
    make_directory(target);
    const std::string options = overlay_options(path, ",userxattr");
    if (mount("scratch", target.c_str(), "overlay", 0, options.c_str()) == 0) {
        return;
    }
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(path, error)) {
        if (entry.is_directory(error) && !entry.is_symlink(error)) {
            show_directory(entry.path());
        } else if (entry.is_regular_file(error) || entry.is_symlink(error)) {
            copy_entry(entry.path(), new_root + entry.path().string());
        }
    }
    for (const char* directory : fresh_directories) {
        if (fs::path(directory).parent_path() == path) {
            make_directory(new_root + std::string(directory));
        }
    }
}

/// In a user namespace the kernel refuses an overlay of the whole root because of the file systems mounted in it, so
/// the new root is assembled from the root's directories.
void assemble_root() {
    mount_temporary(new_root, "mode=0755");
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/", error)) {
        const std::string path = entry.path();
        const bool replaced = path == "/proc" || path == "/sys" || path == "/dev" || path == "/run" || path == "/tmp";
        if (entry.is_symlink(error)) {
            copy_entry(entry.path(), new_root + path);
        } else if (replaced) {
            make_directory(new_root + path);
        } else if (entry.is_directory(error)) {
            show_directory(path);
        }
    }
    make_directory(std::string(new_root) + "/pkg");
}

void overlay_root() {
    const std::string options = overlay_options("", "");
    require(mount("scratch", new_root, "overlay", 0, options.c_str()), "cannot mount overlay on", new_root);
}

void mount_devices() {
    const std::string devices = std::string(new_root) + "/dev";
    mount_temporary(devices, "mode=0755");
    for (const char* file : device_files) {
        bind_file(std::string("/dev/") + file, devices + "/" + file);
    }
    make_directory(devices + "/pts");
    require(mount("/dev/pts", (devices + "/pts").c_str(), nullptr, MS_BIND | MS_REC, nullptr), "cannot bind",
            "/dev/pts");
    make_directory(devices + "/shm", 01777);
    constexpr const char* links[][2] = {{"pts/ptmx", "/ptmx"},
                                        {"/proc/self/fd", "/fd"},
                                        {"/proc/self/fd/0", "/stdin"},
                                        {"/proc/self/fd/1", "/stdout"},
                                        {"/proc/self/fd/2", "/stderr"}};
    for (const auto& link : links) {
        require(symlink(link[0], (devices + link[1]).c_str()), "cannot link", link[1]);
    }
}

void mount_system_views() {
    const std::string proc = std::string(new_root) + "/proc";
    // If parts of /proc are masked, the kernel refuses a new one, and the old one is used.
    if (mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        require(mount("/proc", proc.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "cannot bind", "/proc");
    }
    put_back(hold("/sys", true));
}

void mount_fresh_directories() {
    for (const char* directory : fresh_directories) {
        const bool shared = strcmp(directory, "/tmp") == 0 || strcmp(directory, "/var/tmp") == 0;
        mount_temporary(new_root + std::string(directory), shared ? "mode=1777" : "mode=0755");
    }
}

void change_root() {
    require(chdir(new_root), "cannot enter", new_root);
    require(static_cast<int>(syscall(SYS_pivot_root, ".", ".")), "cannot pivot to", new_root);
    require(umount2(".", MNT_DETACH), "cannot leave", "the old root");
    require(chdir("/"), "cannot enter", "/");
}

/// Brings up the loopback interface, the only one of the new network namespace.
void raise_loopback() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(fd, "cannot open", "a socket");
    struct ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    require(ioctl(fd, SIOCSIFFLAGS, &request), "cannot raise", "lo");
    close(fd);
}

/// Creates what every node has before the agent starts.
void prepare_node() {
    make_directory("/run/netns");
    make_directory("/run/lock", 01777);
    make_directory("/dev/shmem", 01777);
    make_directory("/pkg/lib");
    make_directory("/pkg/bin");
    for (const char* file : {"/var/empty", "/etc/motd"}) {
        std::error_code error;
        fs::remove_all(file, error);
    }
    std::ofstream("/pkg/lib/libssh_cfg_platform.so").close();
}

void build_root(const settings& settings, bool user_namespace) {
    char* working_directory = getcwd(nullptr, 0);
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "cannot make private", "/");
    std::vector<held_directory> held;
    for (const std::string& path : settings.readable) {
        held.push_back(hold(path, true));
    }
    for (const std::string& path : settings.writable) {
        held.push_back(hold(path, false));
    }
    prepare_assembly();
    user_namespace ? assemble_root() : overlay_root();
    mount_system_views();
    mount_devices();
    mount_fresh_directories();
    for (const held_directory& directory : held) {
        put_back(directory);
    }
    change_root();
    prepare_node();
    raise_loopback();
    if (working_directory == nullptr || chdir(working_directory) != 0) {
        require(chdir("/"), "cannot enter", "/");
    }
    free(working_directory);
}

/// Ends this process in the same way as the process with the wait status `status`.
[[noreturn]] void end_like(int status) {
    if (WIFSIGNALED(status)) {
        const struct rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : failure_status);
}

/// Waits for `child`, and reaps orphans meanwhile.
int wait_for(pid_t child) {
    int status = failure_status << 8;
    while (true) {
        int ended = 0;
        const pid_t pid = wait(&ended);
        if (pid == child) {
            return ended;
        }
        if (pid < 0 && errno != EINTR) {
            return status;
        }
    }
}

/// Process 1 of the new process namespace: it builds the root and waits; when it ends, the kernel kills all others. It
/// cannot kill itself with a signal, so it sends the wait status of the test's process through `report`.
[[noreturn]] void keep_namespace(pid_t child, int report) {
    const int status = wait_for(child);
    if (write(report, &status, sizeof status) != sizeof status) {
        _exit(failure_status);
    }
    _exit(0);
}

[[noreturn]] void follow_namespace(pid_t keeper, int report) {
    int status = failure_status << 8;
    ssize_t size = 0;
    do {
        size = read(report, &status, sizeof status);
    } while (size < 0 && errno == EINTR);
    const int keeper_status = wait_for(keeper);
    end_like(size == sizeof status ? status : keeper_status);
}

}  // namespace

void enter(const settings& settings) {
    if (entered()) {
        return;
    }
    fflush(stdout);
    fflush(stderr);
    const bool user_namespace = unshare_namespaces();
    int report[2];
    require(pipe2(report, O_CLOEXEC), "cannot make", "a pipe");
    const pid_t keeper = fork();
    require(keeper, "cannot fork", "");
    if (keeper != 0) {
        close(report[1]);
        follow_namespace(keeper, report[0]);
    }
    close(report[0]);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    build_root(settings, user_namespace);
    const pid_t child = fork();
    require(child, "cannot fork", "");
    if (child != 0) {
        keep_namespace(child, report[1]);
    }
    close(report[1]);
    setenv(entered_variable, "1", 1);
}

bool entered() {
    return getenv(entered_variable) != nullptr;
}

void limit_space(const std::string& directory, uint64_t bytes) {
    make_directory(directory);
    const std::string kept = "/tmp/.limit_space";
    std::error_code error;
    fs::remove_all(kept, error);
    fs::copy(directory, kept, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    mount_temporary(directory, ("mode=0755,size=" + std::to_string(bytes)).c_str());
    fs::copy(kept, directory, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    if (error) {
        errno = error.value();
        give_up("cannot fill", directory);
    }
    fs::remove_all(kept, error);
}

void set_read_only(const std::string& directory, bool read_only) {
    if (!read_only) {
        require(umount2(directory.c_str(), MNT_DETACH), "cannot uncover", directory);
        return;
    }
    require(mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr), "cannot bind", directory);
    const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
    require(mount(nullptr, directory.c_str(), nullptr, flags, nullptr), "cannot remount", directory);
}

void add_namespace_file(const std::string& name) {
    make_directory("/run/netns");
    std::ofstream("/run/netns/" + name).close();
}

void remove_namespace_file(const std::string& name) {
    std::error_code error;
    fs::remove("/run/netns/" + name, error);
}

}  // namespace scratch_root
