"""Changes that would keep their own author out are announced, and made only on demand."""

import access_lists
import pytest
import router
import sessions

ELSEWHERE = '10 permit tcp host 192.0.2.1 any\n'


@pytest.fixture
def operator(server):
    """Runs a command of the tool in a session of the operator in the VRF red."""
    server("red")
    router.run("ssh_cfg_ctl", "acl", "set", "ipv4", "elsewhere", "-", input=ELSEWHERE)

    def tool(*words, **options):
        command = sessions.ssh_words("red", "ssh_cfg_ctl", *words, options=["BatchMode=yes"])
        return router.run(*command, check=False, **options)

    with router.member_of("operator", "sshcfg", "sshcfg-admin"):
        yield tool
    access_lists.delete_all_lists()


def test_a_change_that_keeps_its_author_out_needs_consent(operator):
    bind = ["set", "vrf/red", "'[null,\"elsewhere\"]'"]
    reason = ("a new login like yours would be refused: list elsewhere, which this change binds to VRF red, does not "
              "admit 127.0.0.1, from which you are logged in")

    refused = operator(*bind)
    assert refused.returncode == 5
    assert refused.stderr.splitlines() == [
        f"ssh_cfg_ctl: {reason}",
        "ssh_cfg_ctl: nothing has been changed; if that is intended, use --yes",
    ]
    assert router.ctl("get", "vrf/red") == router.OPEN

    checked = operator("set", "--check", *bind[1:])
    assert checked.returncode == 0
    assert f"warning: {reason}" in checked.stderr
    assert "+ [null,\"elsewhere\",null]" in checked.stdout

    # What this session has negotiated is not allowed in FIPS mode.
    fips = operator("set", "fipsmode/value", "1")
    assert fips.returncode == 5
    assert "FIPS mode, which this change turns on, does not allow key exchange curve25519-sha256" in fips.stderr

    gone = operator("delete", "vrf/red")
    assert gone.returncode == 5
    assert "removes the server of VRF red on port 22" in gone.stderr

    # The console is not concerned, nor is a list that admits the session.
    router.run("ssh_cfg_ctl", "acl", "set", "ipv4", "here", "-", input="10 permit tcp host 127.0.0.1 any\n")
    assert operator("set", "vrf/red", "'[null,\"here\"]'").returncode == 0
    swapped = operator("acl", "set", "ipv4", "here", "-", input=ELSEWHERE)
    assert swapped.returncode == 5
    assert "list here, which is bound to VRF red, would no longer admit 127.0.0.1" in swapped.stderr

    assert operator("--yes", *bind).returncode == 0
    router.wait_until(lambda: operator("get", "timeout").returncode == 255, what="the list that keeps the operator out")
    assert router.set_item("sshd/vrf/red", router.OPEN)["changed"]
