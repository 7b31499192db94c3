#pragma once

#include <ostream>

#include "core/ports/port_row.h"

namespace wharfy {

/// Readable roles in test failures.
inline void PrintTo(const ListenerRole& role, std::ostream* os) {
    *os << role.rawValue();
    if (auto s = role.as<ListenerRole::BackgroundService>())
        *os << "(" << s->label << ", " << s->stopCommand
            << ", keepsAlive=" << (s->keepsAlive ? (*s->keepsAlive ? "true" : "false") : "absent")
            << ")";
    if (auto a = role.as<ListenerRole::PartOfApp>()) *os << "(" << a->name << ")";
    if (auto c = role.as<ListenerRole::ContainerForwarder>()) *os << "(" << c->runtime << ")";
    if (auto a = role.as<ListenerRole::AppleSystem>()) *os << "(" << a->fix.value_or("") << ")";
}

}  // namespace wharfy
