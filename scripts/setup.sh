#!/bin/sh
# Installs what the build and the tests need, from Debian's packages.
# Safe to run again: it only calls apt-get when something is missing.
set -e

packages="g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix mingw-w64-tools \
wine wine64 xvfb xauth libwine-dev googletest cmake make python3 \
libemail-outlook-message-perl libemail-address-perl wixl msitools clang libclang-rt-14-dev"

missing=""
for p in $packages; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

if [ -n "$missing" ]; then
    echo "setup: installing$missing"
    if [ "$(id -u)" -ne 0 ]; then
        SUDO=sudo
    else
        SUDO=
    fi
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi
