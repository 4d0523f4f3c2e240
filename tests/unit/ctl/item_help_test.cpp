#include "ssh_cfg_ctl/item_help.h"

#include <gtest/gtest.h>

namespace {

control_json parsed(const char* text) {
    std::string error;
    return control_json_parse(text, error).value_or(control_json());
}

TEST(ctl_item_help_text, explains_one_item) {
    const control_json item = parsed(
        R"([{"path":"/cfg/x/vrf/NAME","short_path":"vrf/NAME","meaning":"SSH server","name":"1 to 3 letters","value":"an array",
             "fields":[{"name":"index","form":"a number"}],"unit":"pieces","default":"none","current":[null,"v4"],
             "example":"ssh_cfg_ctl set vrf/NAME","not_carried_out":"no server"}])");
    EXPECT_EQ(ctl_item_help_text(item, 0),
              "/cfg/x/vrf/NAME\nSSH server\n\n"
              "  Short path:                       vrf/NAME\n"
              "  NAME:                             1 to 3 letters\n"
              "  Value:                            an array\n"
              "    index:                          a number\n"
              "  Unit:                             pieces\n"
              "  Default:                          none\n"
              "  Now:                              [null,\"v4\"]\n"
              "  Example:                          ssh_cfg_ctl set vrf/NAME\n"
              "  Not carried out on this machine:  no server\n");
}

TEST(ctl_item_help_text, leaves_out_what_does_not_apply) {
    EXPECT_EQ(ctl_item_help_text(parsed(R"([{"path":"/a","meaning":"A","current":null}])"), 0),
              "/a\nA\n\n  Now:  not configured\n");
    EXPECT_EQ(ctl_item_help_text(parsed(R"([{"path":"/a","meaning":"A","example":"x"}])"), 0),
              "/a\nA\n\n  Example:  x\n");
}

TEST(ctl_item_help_text, lists_several_items) {
    EXPECT_EQ(ctl_item_help_text(parsed(R"([{"path":"/x/a","short_path":"a","meaning":"A\u001b"},
                                            {"path":"/oper/b","meaning":"B"}])"),
                                 0),
              "Path     Meaning\na        A\\x1b\n/oper/b  B\n\n`ssh_cfg_ctl help PATH` explains one of them.\n");
}

TEST(ctl_children_text, marks_what_is_configured) {
    EXPECT_EQ(
        ctl_children_text(parsed(R"([{"name":"dscp","configured":true,"value":46,"meaning":"DSCP"},
                                           {"name":"v1","configured":false,"meaning":"V1"},
                                           {"name":"vrf/","configured":true,"items":1},
                                           {"name":"cmn/","configured":true,"items":2},
                                           {"name":"office","configured":true,"entries":1},
                                           {"name":"lab","configured":true,"entries":2},
                                           {"name":"no/","configured":false,"items":0},
                                           {"name":"*/","configured":false,"items":0}])"),
                          0),
        "Name    Value      Meaning\ndscp    46         DSCP\nv1      -          V1\nvrf/    1 item\ncmn/    2 items\n"
        "office  1 entry\nlab     2 entries\nno/     -\nNAME/   -\n");
}

}  // namespace
