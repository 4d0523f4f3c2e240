#include "core/fault_points.h"

fault_point fault_points[fault_point_count] = {
    {"Enable Bag Decode failed fault point", 0},
    {"Enable Datastore Datalist failed fault point", 0},
    {"Enable Datastore Set failed fault point", 0},
    {"Enable Datastore Get failed fault point", 0},
    {"Enable Datastore Delete failed fault point", 0},
    {"Enable Datastore Pack failed fault point", 0},
    {"Enable Datastore Unpack failed fault point", 0},
    {"Enable Datastore Bind failed fault point", 0},
    {"Enable Malloc failed fault point", 0},
    {"Enable Semaphore failed fault point", 0},
    {"Enable Number Value failure", 0},
    {"Enable String Value failure", 0},
    {"Enable Status failure", 0},
    {"Enable ship registration failure", 0},
    {"Enable Structure failure", 0},
    {"Enable mpp vrf set failure", 0},
    {"Enable vrf bind failure", 0},
    {"Enable mpp set failure", 0},
    {"Enable listen failure", 0},
    {"Enable listen failure for v6 socket", 0},
    {"Enable packet transmit failure", 0},
    {"Enable packet receive failure", 0},
    {"Enable aaa failure", 0},
    {"Enable evm failure", 0},
    {"Enable init failure", 0},
    {"Enable crypto errors", 0},
    {"Enable argument errors", 0},
    {"Enable scp read/write errors", 0},
    {"Enable scp other errors", 0},
};

platform_status register_fault_points() {
    return fault_injection_register("ssh", fault_points, fault_point_count);
}
