#!/bin/sh
# The end-to-end demonstration (make demo) and its timing run (make bench):
# a private Wine prefix, the add-in installed there from its package as an
# administrator would (msiexec), and under a virtual display the Outlook
# stand-in loading it, dragging and copying mails and attachments into the
# drop target program, and shutting it down again; at the end the package
# is removed.
#
#   sh scripts/demo.sh <build folder> [demo|bench]
set -e
build=$(cd "${1:-build/x64}" && pwd)
mode=${2:-demo}
bin="$build/bin"
work="$build/demo"
mkdir -p "$work"

package=$(ls "$build"/../korvane-*-x64.msi 2>/dev/null | tail -n 1)
for file in "$package" "$bin/outlook_standin.exe" "$bin/drop_target.exe"; do
    if [ ! -f "$file" ]; then
        echo "demo: ${file:-the x64 package} is missing; run make build first" >&2
        exit 1
    fi
done

export WINEPREFIX="$work/wineprefix"
export WINEDEBUG=-all
# Wine's mapi32 can't open a .msg (OpenIMsgOnIStg aborts), so the add-in reads
# mails from their storage, as it does wherever MAPI is missing.
export WINEDLLOVERRIDES="mapi32=;mscoree,mshtml="

if [ ! -f "$WINEPREFIX/system.reg" ]; then
    echo "demo: making a private Wine prefix in $WINEPREFIX"
    wineboot -i </dev/null >/dev/null 2>&1 || true
    wineserver -w
fi

rm -f "$work/target-report.txt" "$work/standin-result.txt"
report=$(winepath -w "$work/target-report.txt" 2>/dev/null)
result=$(winepath -w "$work/standin-result.txt" 2>/dev/null)

if [ "$mode" = bench ]; then
    steps="reset-settings set:LogLevel=WARN connect bench:1,100,1000 shutdown"
    print=""
else
    # CaptureClipboard has no place on the ribbon: the user sets it in the registry.
    steps="reset-settings set:CaptureClipboard=true connect ribbon
           press:cbTextFormat=json drag:all copy:mail:1 paste press:cbFormat=eml press:cbTextFormat=none drag:mails
           shutdown"
    print="--print"
fi

package_win=$(winepath -w "$package" 2>/dev/null)
install_log=$(winepath -w "$work/install.log" 2>/dev/null)
# Wine's desktop has to start on the virtual display: no Wine process may run before it.
wineserver -k >/dev/null 2>&1 || true
export bin report result steps print mode package_win install_log
xvfb-run -a -s "-screen 0 1024x768x24" sh -c '
    wineserver -p </dev/null >/dev/null 2>&1
    wine cmd /c exit </dev/null >/dev/null 2>&1
    wine "$bin/drop_target.exe" --report "$report" </dev/null >/dev/null 2>&1 &
    printf "%s\n" "demo: msiexec /i $(basename "$package_win") /qn RIBBONINFO=\"2;Korvane\" /l*v install.log"
    wine msiexec /i "$package_win" /qn "RIBBONINFO=2;Korvane" /l*v "$install_log" </dev/null >/dev/null 2>&1 || {
        echo "demo: the installation failed, see $install_log" >&2; wineserver -k; exit 1; }
    grep -a "^Korvane: " "$(winepath -u "$install_log" 2>/dev/null)" | sed "s/^/demo: installer log: /"
    status=0
    wine "$bin/outlook_standin.exe" --target-report "$report" --result "$result" $print $steps </dev/null || status=$?
    if [ "$mode" = demo ]; then
        temp=$(wine cmd /c echo %TEMP% </dev/null 2>/dev/null | tr -d "\r")
        printf "\n%s\n" "The files lie in $temp\\Korvane, that is $(readlink -f "$(winepath -u "$temp\\Korvane" 2>/dev/null)")"
        printf "%s\n" "The target report: $report; the stand-in steps: $result"
    fi
    wine msiexec /x "$package_win" /qn </dev/null >/dev/null 2>&1 || true
    printf "%s\n" "demo: msiexec /x $(basename "$package_win") /qn: the add-in is removed again"
    wineserver -k >/dev/null 2>&1
    exit $status
'
