#pragma once
// Every key and value name under HKLM\Software and HKCU\Software (32-bit
// views included, they live below Wow6432Node), to prove that something
// leaves the registry as it found it. Of the class containers (CLSID,
// Interface, TypeLib) only the names of their keys are taken.
#include <set>
#include <string>
#include <vector>

using RegistrySnapshot = std::set<std::wstring>;

// Keys as "HKLM\Software\..." and values as key + "|" + value name.
RegistrySnapshot takeRegistrySnapshot();

// What `after` has that `before` hasn't, and the reverse, each entry marked "+ " or "- ".
std::vector<std::wstring> registryChanges(const RegistrySnapshot& before, const RegistrySnapshot& after);
