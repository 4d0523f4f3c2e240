#include "linux/vrf/namespace_watch.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>

#include "platform/namespace_message.h"
#include "unit/linux/platform_test_support.h"

using platform_test::journal_listener;
using platform_test::run;
using platform_test::write_file;

namespace {

class namespace_watch_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        clear_directory();
    }
    void TearDown() override {
        loop_test::TearDown();
        clear_directory();
    }

    static std::string path(const std::string& name) { return std::string(namespace_directory) + "/" + name; }

    /// An empty /run/netns. `ip netns` may have bind-mounted it on itself.
    static void clear_directory() {
        std::filesystem::create_directories(namespace_directory);
        for (const auto& entry : std::filesystem::directory_iterator(namespace_directory)) {
            umount2(entry.path().c_str(), MNT_DETACH);
        }
        while (umount2(namespace_directory, MNT_DETACH) == 0) {
        }
        std::filesystem::remove_all(namespace_directory);
        std::filesystem::create_directories(namespace_directory);
    }

    /// The first half of `ip netns add`.
    static void make_file(const std::string& name) { std::ofstream(path(name)).close(); }

    /// The second half: attaches a new namespace of the given kind to the file.
    static void attach(const std::string& name, int kind = CLONE_NEWNET) {
        const char* link = kind == CLONE_NEWNET ? "/proc/self/ns/net" : "/proc/self/ns/uts";
        const int own = open(link, O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(0, unshare(kind));
        EXPECT_EQ(0, mount(link, path(name).c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
        ASSERT_EQ(0, setns(own, kind));
        close(own);
    }
    static void add(const std::string& name) {
        make_file(name);
        attach(name);
    }
    static void remove(const std::string& name) {
        umount2(path(name).c_str(), MNT_DETACH);
        unlink(path(name).c_str());
    }

    static void note_message(struct event_message* message, void* context) {
        auto* test = static_cast<namespace_watch_test*>(context);
        size_t size = 0;
        const auto* body = static_cast<const namespace_message*>(event_message_body(message, &size));
        EXPECT_EQ(sizeof(namespace_message), size);
        test->messages += (body->code == NAMESPACE_CREATED ? "+" : "-") + std::string(body->name) + " ";
        if (test->on_message) {
            test->on_message();
        }
        if (!test->reply.empty()) {
            event_message_reply(message, test->reply.data(), test->reply.size());
        }
    }
    void start() { ASSERT_EQ(0u, event_manager_attach_message(manager, NAMESPACE_MESSAGE, note_message, this)); }
    /// Runs until the expected messages have arrived, and a little longer to see that there are no more.
    void expect_messages(const std::string& expected) {
        run_until([&] { return messages.size() >= expected.size(); });
        run_for(60);
        EXPECT_EQ(expected, messages);
        messages.clear();
    }

    std::string messages;
    std::string reply = std::string(NAMESPACE_REPLY_SIZE, '\0');
    std::function<void()> on_message;
};

TEST_F(namespace_watch_test, reports_namespaces_that_appear_and_disappear) {
    start();
    add("vrf-red");
    expect_messages("+vrf-red ");
    remove("vrf-red");
    expect_messages("-vrf-red ");
}

TEST_F(namespace_watch_test, follows_the_netns_command) {
    start();
    ASSERT_TRUE(run("ip netns add vrf-red"));
    expect_messages("+vrf-red ");
    EXPECT_EQ(std::vector<std::string>{"vrf-red"}, namespace_list());
    ASSERT_TRUE(run("ip netns add vrf-blue"));
    expect_messages("+vrf-blue ");
    EXPECT_EQ((std::vector<std::string>{"vrf-blue", "vrf-red"}), namespace_list());
    ASSERT_TRUE(run("ip netns del vrf-red"));
    expect_messages("-vrf-red ");
    ASSERT_TRUE(run("ip netns add vrf-red"));
    expect_messages("+vrf-red ");
}

TEST_F(namespace_watch_test, a_namespace_created_on_the_host_reaches_an_agent_with_its_own_mounts) {
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_SHARED | MS_REC, nullptr));
    int done[2];
    ASSERT_EQ(0, pipe2(done, O_CLOEXEC));
    const pid_t host = fork();
    if (host == 0) {
        // What the service manager sets up for a service: changes propagate in but not out.
        char byte = 0;
        _exit(read(done[0], &byte, 1) == 1 && run("ip netns add vrf-red") && read(done[0], &byte, 1) == 1 &&
                      run("ip netns del vrf-red")
                  ? 0
                  : 1);
    }
    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_SLAVE | MS_REC, nullptr));
    start();
    EXPECT_EQ(1, write(done[1], "x", 1));
    expect_messages("+vrf-red ");
    EXPECT_EQ(1, write(done[1], "x", 1));
    expect_messages("-vrf-red ");
    int status = -1;
    waitpid(host, &status, 0);
    EXPECT_EQ(0, status);
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_PRIVATE | MS_REC, nullptr));
}

TEST_F(namespace_watch_test, does_not_report_existing_namespaces) {
    add("vrf-red");
    start();
    expect_messages("");
    remove("vrf-red");
    expect_messages("-vrf-red ");
}

TEST_F(namespace_watch_test, a_file_is_not_a_namespace_until_one_is_attached) {
    start();
    make_file("vrf-red");
    run_for(150);
    EXPECT_EQ("", messages);
    EXPECT_FALSE(namespace_is_attached("vrf-red"));
    attach("vrf-red");
    EXPECT_TRUE(namespace_is_attached("vrf-red"));
    expect_messages("+vrf-red ");
}

TEST_F(namespace_watch_test, a_file_older_than_the_watch_is_checked_again) {
    make_file("vrf-red");
    start();
    expect_messages("");
    attach("vrf-red");
    expect_messages("+vrf-red ");
}

TEST_F(namespace_watch_test, a_namespace_is_reported_within_the_time_of_the_first_check) {
    start();
    make_file("vrf-red");
    const auto begin = std::chrono::steady_clock::now();
    on_message = [&] { EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200)); };
    run_once();
    attach("vrf-red");
    expect_messages("+vrf-red ");
}

TEST_F(namespace_watch_test, a_file_removed_before_it_became_a_namespace_is_not_reported) {
    start();
    make_file("vrf-red");
    run_for(50);
    remove("vrf-red");
    expect_messages("");
}

TEST_F(namespace_watch_test, another_kind_of_namespace_does_not_count) {
    start();
    make_file("vrf-red");
    attach("vrf-red", CLONE_NEWUTS);
    ASSERT_EQ(0, mkfifo(path("vrf-pipe").c_str(), 0600));
    ASSERT_EQ(0, symlink("/nowhere", path("vrf-link").c_str()));
    ASSERT_TRUE(std::filesystem::create_directory(path("vrf-directory")));
    run_for(100);
    EXPECT_EQ("", messages);
    EXPECT_TRUE(namespace_list().empty());
}

TEST_F(namespace_watch_test, other_names_are_ignored) {
    start();
    for (const char* name :
         {"red", "vrf", "vrf-", "vrf--x", "vrf-.x", "vrf-a b", "vrf-$(x)", "vrf-123456789012345678901234567890123"}) {
        add(name);
    }
    add("vrf-12345678901234567890123456789012");
    expect_messages("+vrf-12345678901234567890123456789012 ");
}

TEST_F(namespace_watch_test, a_replaced_namespace_is_reported_as_deleted_and_created) {
    add("vrf-red");
    start();
    remove("vrf-red");
    add("vrf-red");
    expect_messages("-vrf-red +vrf-red ");
}

TEST_F(namespace_watch_test, one_that_appeared_and_disappeared_unseen_is_not_reported) {
    start();
    add("vrf-red");
    remove("vrf-red");
    add("vrf-blue");
    expect_messages("+vrf-blue ");
}

// Detaching a namespace is no event of the directory.
TEST_F(namespace_watch_test, one_removed_before_delivery_is_not_reported) {
    start();
    add("vrf-red");
    run_once();
    umount2(path("vrf-red").c_str(), MNT_DETACH);
    run_once();
    EXPECT_EQ("", messages);
    add("vrf-blue");
    expect_messages("+vrf-blue ");
    attach("vrf-red");
    expect_messages("+vrf-red ");
}

TEST_F(namespace_watch_test, changes_during_a_handler_are_merged) {
    start();
    on_message = [&] {
        on_message = nullptr;
        add("vrf-blue");
        remove("vrf-blue");
        remove("vrf-red");
        add("vrf-red");
        remove("vrf-red");
    };
    add("vrf-red");
    expect_messages("+vrf-red -vrf-red ");
}

TEST_F(namespace_watch_test, messages_come_one_at_a_time_from_the_loop) {
    start();
    add("vrf-a");
    add("vrf-b");
    run_once();
    run_once();
    EXPECT_EQ("", messages) << "the watch itself sends nothing";
    run_once();
    EXPECT_EQ("+vrf-a ", messages);
    run_once();
    EXPECT_EQ("+vrf-a +vrf-b ", messages);
}

TEST_F(namespace_watch_test, the_directory_may_be_created_later) {
    std::filesystem::remove(namespace_directory);
    start();
    std::filesystem::create_directory(namespace_directory);
    add("vrf-red");
    expect_messages("+vrf-red ");
    remove("vrf-red");
    expect_messages("-vrf-red ");
}

TEST_F(namespace_watch_test, the_directory_may_be_removed_and_recreated) {
    add("vrf-red");
    start();
    clear_directory();
    expect_messages("-vrf-red ");
    add("vrf-red");
    expect_messages("+vrf-red ");
    clear_directory();
    std::filesystem::remove(namespace_directory);
    expect_messages("-vrf-red ");
    std::filesystem::create_directory(namespace_directory);
    run_for(50);
    add("vrf-blue");
    expect_messages("+vrf-blue ");
}

TEST_F(namespace_watch_test, the_directory_may_be_moved_away) {
    add("vrf-red");
    start();
    std::filesystem::rename(namespace_directory, "/run/netns.old");
    expect_messages("-vrf-red ");
    std::filesystem::create_directory(namespace_directory);
    add("vrf-blue");
    expect_messages("+vrf-blue ");
    umount2("/run/netns.old/vrf-red", MNT_DETACH);
    std::filesystem::remove_all("/run/netns.old");
}

TEST_F(namespace_watch_test, an_overflow_of_the_watch_loses_nothing) {
    const std::string limit = platform_test::read_file("/proc/sys/fs/inotify/max_queued_events");
    add("vrf-gone");
    start();
    add("vrf-early");
    // More events than the kernel queues. A rename is two of them.
    make_file("x0");
    for (int i = 0; i <= std::stoi(limit) / 2; ++i) {
        ASSERT_EQ(0,
                  rename(path("x" + std::to_string(i % 2)).c_str(), path("x" + std::to_string((i + 1) % 2)).c_str()));
    }
    remove("vrf-gone");
    add("vrf-late");
    journal_listener journal;
    run_until([&] { return messages.find("+vrf-late ") != std::string::npos; });
    run_for(50);
    EXPECT_NE(std::string::npos, messages.find("+vrf-early "));
    EXPECT_NE(std::string::npos, messages.find("-vrf-gone "));
    EXPECT_NE(std::string::npos, messages.find("+vrf-late "));
    EXPECT_EQ(std::string("+vrf-early -vrf-gone +vrf-late ").size(), messages.size()) << messages;
    EXPECT_EQ("The watch on /run/netns overflowed; reading the directory again\n", journal.messages());
}

TEST_F(namespace_watch_test, a_reply_of_another_size_or_with_a_status_is_logged) {
    journal_listener journal;
    start();
    for (const std::string& bad : {std::string(23, '\0'), std::string(25, '\0'), std::string(24, '\1')}) {
        reply = bad;
        add("vrf-red");
        run_until([&] { return !messages.empty(); });
        EXPECT_EQ("The creation of namespace vrf-red was not handled\n", journal.messages());
        reply.assign(NAMESPACE_REPLY_SIZE, '\0');
        messages.clear();
        remove("vrf-red");
        expect_messages("-vrf-red ");
        EXPECT_EQ("", journal.messages());
    }
    reply.clear();
    add("vrf-red");
    run_until([&] { return !messages.empty(); });
    EXPECT_EQ("Message 0x50d8085 was handled without a reply\nThe creation of namespace vrf-red was not handled\n",
              journal.messages());
}

TEST_F(namespace_watch_test, there_is_one_watch) {
    EXPECT_EQ(static_cast<platform_status>(EINVAL), namespace_watch_start(nullptr));
    ASSERT_EQ(0u, namespace_watch_start(manager));
    EXPECT_EQ(static_cast<platform_status>(EALREADY), namespace_watch_start(manager));
    namespace_watch_stop();
    namespace_watch_stop();
    EXPECT_EQ(0u, namespace_watch_start(manager));
}

TEST_F(namespace_watch_test, a_watch_that_cannot_be_created_fails_the_attachment) {
    platform_status status = PLATFORM_OK;
    {
        const platform_test::no_descriptors_left none;
        status = event_manager_attach_message(manager, NAMESPACE_MESSAGE, note_message, this);
    }
    EXPECT_EQ(static_cast<platform_status>(EMFILE), status);
    start();
    add("vrf-red");
    expect_messages("+vrf-red ");
}

}  // namespace
