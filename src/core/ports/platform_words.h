#pragma once

namespace wharfy {

/// The user-facing words that name the computer or its operating system.
/// Raw values ("thisMacOnly", role names) never change; only these texts do.
struct PlatformWords {
    /// Label of AddressClass::thisMacOnly, e.g. "This computer only".
    const char* thisMacOnly;
    const char* oneNetwork;
    const char* allNetworks;
    /// Refusal for an operating-system program, e.g. "Part of the operating system.".
    const char* partOfOS;
    /// Where something lives, e.g. "on this computer".
    const char* onThisMac;
};

/// This platform's words.
const PlatformWords& platformWords();

enum class AddressClass;
/// The label of how far a listener reaches, in this platform's words.
const char* reachLabel(AddressClass addressClass);

}  // namespace wharfy
