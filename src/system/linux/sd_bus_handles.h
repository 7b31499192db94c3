#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace wharfy::bus {

struct BusClose {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

/// A bus connection that is closed and released with its owner.
using Bus = std::unique_ptr<sd_bus, BusClose>;
/// A message released with its owner.
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;
/// A match or call slot, removed with its owner.
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

}  // namespace wharfy::bus
