"""tools/check_includes against small trees, each with one thing that must be found, and against the project itself."""
import pathlib
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]

REPORTER_LISTS = "add_library(ssh_session_reporter SHARED sender.cpp)\n"


def check(tree):
    done = subprocess.run([PROJECT / "tools" / "check_includes", tree], capture_output=True, text=True, check=False)
    assert done.stderr == ""
    return done.returncode, done.stdout.splitlines()


def make_tree(top, files):
    for name, text in files.items():
        path = top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    return top


def include(*names):
    return "".join(f'#include "{name}"\n' for name in names)


def test_the_project_itself():
    status, lines = check(PROJECT)
    assert (status, len(lines)) == (0, 1), lines


def test_the_right_direction_passes(tmp_path):
    make_tree(tmp_path, {
        "src/core/text.h": include("platform/status.h"),
        "src/vrf/protection.cpp": include("vrf/protection.h", "core/text.h"),
        "src/vrf/protection.h": "",
        "platform/include/platform/status.h": "",
        "platform/common/text.h": "",
        "platform/linux/reporting/log.h": include("common/text.h"),
        "platform/linux/control/server.cpp": include("linux/reporting/log.h"),
        "platform/linux/start.cpp": include("linux/control/server.h"),
        "platform/linux/control/server.h": "",
        "platform/control_protocol/frame.h": "",
        "tools/ssh_cfg_ctl/client.cpp": include("ssh_cfg_ctl/client.h", "control_protocol/frame.h"),
        "tools/ssh_cfg_ctl/client.h": "#include <string>\n",
    })
    status, lines = check(tmp_path)
    assert (status, len(lines)) == (0, 1), lines


@pytest.mark.parametrize("including, included", [
    ("src/core/text.cpp", "src/vrf/node.h"),
    ("src/config_files/files.cpp", "src/vrf/node.h"),
    ("src/vrf/node.cpp", "src/acl/family.h"),
    ("src/appliers/banner.cpp", "src/oper/params.h"),
    ("src/oper/params.cpp", "src/core/item_table.h"),
    ("platform/include/platform/status.h", "platform/common/text.h"),
    ("platform/common/text.cpp", "platform/linux/reporting/log.h"),
    ("platform/linux/reporting/log.cpp", "platform/linux/process/timer.h"),
    ("platform/linux/process/timer.cpp", "platform/linux/datastore/read.h"),
    ("platform/linux/datastore/read.cpp", "platform/linux/vrf/table.h"),
    ("platform/linux/vrf/table.cpp", "platform/linux/host/keys.h"),
    ("platform/linux/host/keys.cpp", "platform/linux/access_lists/acl.h"),
    ("platform/linux/access_lists/acl.cpp", "platform/linux/control/server.h"),
    ("platform/linux/control/server.cpp", "platform/linux/start.h"),
    ("platform/linux/process/timer.cpp", "platform/linux/start.h"),
    ("platform/linux/datastore/read.cpp", "platform/fake/fake.h"),
    ("platform/openssh/launch.cpp", "platform/openssh/sessions/facts.h"),
    ("platform/openssh/launch.cpp", "platform/linux/reporting/log.h"),
    ("platform/openssh/sessions/facts.cpp", "platform/openssh/wrapper/command.h"),
    ("tools/ssh_cfg_ctl/client.cpp", "platform/user_keys/base64.h"),
    ("tools/ssh_cfg_ctl/client.cpp", "platform/linux/control/server.h"),
])
def test_the_wrong_direction(tmp_path, including, included):
    # The preloaded libraries' folders need their lists of sources.
    lists = {"platform/openssh/wrapper/CMakeLists.txt": "add_library(ssh_session MODULE hook.cpp)\n"}
    name = included.removeprefix("platform/include/").removeprefix("platform/").removeprefix("src/")
    make_tree(tmp_path, {including: "\n" + include(name), included: "",
                         **(lists if "openssh/wrapper" in included else {})})
    status, lines = check(tmp_path)
    assert status == 1
    assert len(lines) == 1
    assert lines[0].startswith(f"{including}:2: ") and f"may not include {included} " in lines[0]


def test_an_include_of_nothing(tmp_path):
    make_tree(tmp_path, {"src/core/text.cpp": include("core/nowhere.h")})
    assert check(tmp_path) == (1, ["src/core/text.cpp:1: core/nowhere.h is no header of this project"])


@pytest.mark.parametrize("path", ["platform/windows/log.cpp", "tools/other/main.cpp"])
def test_a_folder_without_a_layer(tmp_path, path):
    make_tree(tmp_path, {path: ""})
    assert check(tmp_path) == (1, [f"{path}: its folder is no layer"])


def test_a_header_and_its_source_are_one_module(tmp_path):
    make_tree(tmp_path, {
        "src/core/text.h": "",
        "src/core/text.cpp": include("core/text.h"),
        "platform/linux/vrf/mpp_internal.h": "",
        "platform/linux/vrf/mpp.cpp": include("linux/vrf/mpp_internal.h"),
    })
    status, lines = check(tmp_path)
    assert (status, len(lines)) == (0, 1), lines


@pytest.mark.parametrize("files, group", [
    # Each header includes the other.
    ({"src/core/a.h": include("core/b.h"), "src/core/b.h": include("core/a.h")}, "src/core/a, src/core/b"),
    # Each source includes the other's header.
    ({"src/core/a.h": "", "src/core/a.cpp": include("core/b.h"),
      "src/core/b.h": "", "src/core/b.cpp": include("core/a.h")}, "src/core/a, src/core/b"),
    # By way of a third, and through a header of the source that serves its own layer.
    ({"platform/linux/vrf/a_internal.h": "", "platform/linux/vrf/a.cpp": include("linux/vrf/b.h"),
      "platform/linux/vrf/b.h": include("linux/vrf/c.h"),
      "platform/linux/vrf/c.h": include("linux/vrf/a_internal.h")},
     "platform/linux/vrf/a, platform/linux/vrf/b, platform/linux/vrf/c"),
    # In the tools.
    ({"tools/ssh_cfg_ctl/a.h": include("ssh_cfg_ctl/b.h"), "tools/ssh_cfg_ctl/b.h": "",
      "tools/ssh_cfg_ctl/b.cpp": include("ssh_cfg_ctl/a.h")}, "tools/ssh_cfg_ctl/a, tools/ssh_cfg_ctl/b"),
])
def test_a_cycle_between_modules(tmp_path, files, group):
    make_tree(tmp_path, files)
    assert check(tmp_path) == (1, [f"modules include one another: {group}"])


@pytest.mark.parametrize("header", ["string", "vector", "map", "iostream", "functional", "memory", "new"])
@pytest.mark.parametrize("file", ["sender.cpp", "sender.h"])
def test_a_header_that_allocates_in_code_inside_sshd(tmp_path, file, header):
    make_tree(tmp_path, {
        "platform/openssh/reporter/CMakeLists.txt": REPORTER_LISTS,
        f"platform/openssh/reporter/{file}": f"#include <string_view>\n#include <unistd.h>\n#include <{header}>\n",
    })
    assert check(tmp_path) == (1, [f"platform/openssh/reporter/{file}:3: platform/openssh/reporter is loaded into sshd "
                                   f"and may not include <{header}>"])


def test_other_code_in_a_library_inside_sshd(tmp_path):
    make_tree(tmp_path, {
        "platform/openssh/reporter/CMakeLists.txt":
            "set(reporter_sources sender.cpp ../text.cpp)\n"
            "add_library(ssh_session_reporter SHARED ${reporter_sources})\n",
        "platform/openssh/reporter/sender.cpp": "",
        "platform/openssh/text.cpp": "#include <string>\n",
    })
    assert check(tmp_path) == (1, ["platform/openssh/reporter/CMakeLists.txt: ssh_session_reporter is loaded into sshd "
                                   "and may not contain ../text.cpp"])


def test_a_library_inside_sshd_that_cannot_be_found(tmp_path):
    make_tree(tmp_path, {"platform/openssh/reporter/CMakeLists.txt": "add_library(other SHARED sender.cpp)\n",
                         "platform/openssh/reporter/sender.cpp": ""})
    assert check(tmp_path) == (1, ["platform/openssh/reporter/CMakeLists.txt: there is no library ssh_session_reporter"])
