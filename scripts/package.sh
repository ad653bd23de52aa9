#!/bin/sh
# Builds the Windows Installer package of one flavour of the add-in with wixl:
#
#   sh scripts/package.sh <korvane64.dll | korvane32.dll> <x64 | x86> <folder> [version]
#
# writes <folder>/korvane-<version>-<x64|x86>.msi. The version is the DLL's
# own (its version resource) unless one is given.
set -e
dll=$(readlink -f "$1")
arch=$2
out=$3
root=$(cd "$(dirname "$0")/.." && pwd)
version=${4:-$(python3 "$root/scripts/dll_version.py" "$dll")}
mkdir -p "$out"
msi="$out/korvane-$version-$arch.msi"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# wixl takes only relative source paths. The debugging information stays
# with the build; what users get is stripped.
cp "$dll" "$root"/res/resource_*.txt "$work/"
case $arch in x64) strip=x86_64-w64-mingw32-strip ;; *) strip=i686-w64-mingw32-strip ;; esac
$strip "$work/$(basename "$dll")"
(cd "$work" && wixl -a "$arch" -D Arch="$arch" -D Version="$version" -D AddinDll="$(basename "$dll")" -D Texts=. \
    -o package.msi "$root/res/package/korvane.wxs")

# What wixl 0.101 cannot express: HKMU registry rows (it writes root 4),
# component conditions, custom actions in an installed file, rollback
# actions and impersonation (it marks them all as the system's). A setting
# that was not given is not written; on removal the condition holds, since
# Wine's installer leaves the values of components whose condition fails.
in_file=17 continue=64 rollback=256 deferred=1024 as_system=2048
kind() { echo $((in_file + $1)); }
msibuild "$work/package.msi" \
    -q "UPDATE Registry SET Root = -1" \
    -q "UPDATE Component SET Condition = 'MAXFILES OR REMOVE~=\"ALL\"' WHERE Component = 'MaxFilesSetting'" \
    -q "UPDATE Component SET Condition = 'KEEPTEMPFILESMINUTES OR REMOVE~=\"ALL\"' WHERE Component = 'KeepMinutesSetting'" \
    -q "DELETE FROM Binary WHERE Name = 'EntryPoints'" \
    -q "UPDATE CustomAction SET Source = 'AddinDll' WHERE Source = 'EntryPoints'" \
    -q "UPDATE CustomAction SET Type = $(kind $((deferred + as_system))) WHERE Action = 'KvInstallMachine'" \
    -q "UPDATE CustomAction SET Type = $(kind $((rollback + deferred + as_system + continue))) WHERE Action = 'KvUndoMachine'" \
    -q "UPDATE CustomAction SET Type = $(kind $((deferred + as_system + continue))) WHERE Action = 'KvUninstallMachine'" \
    -q "UPDATE CustomAction SET Type = $(kind $deferred) WHERE Action = 'KvInstallUser'" \
    -q "UPDATE CustomAction SET Type = $(kind $((rollback + deferred + continue))) WHERE Action = 'KvUndoUser'" \
    -q "UPDATE CustomAction SET Type = $(kind $((deferred + continue))) WHERE Action = 'KvUninstallUser'" \
    -q "UPDATE File SET Version = '$(python3 "$root/scripts/dll_version.py" "$dll")' WHERE File = 'AddinDll'" \
    -q "UPDATE Property SET Value = 'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;RIBBONINFO;FRIENDLYNAME;DESCRIPTION;MAXFILES;KEEPTEMPFILESMINUTES;REMOVESETTINGS;KVSCOPE' WHERE Property = 'SecureCustomProperties'"
mv "$work/package.msi" "$msi"
echo "package: $msi"
