#!/bin/sh
# The end-to-end demonstration (make demo) and its timing run (make bench):
# a private Wine prefix, the add-in installed and registered there as an
# installer would (regsvr32), and under a virtual display the Outlook
# stand-in loading it, dragging and copying mails and attachments into the
# drop target program, and shutting it down again.
#
#   sh scripts/demo.sh <build folder> [demo|bench]
set -e
build=$(cd "${1:-build/x64}" && pwd)
mode=${2:-demo}
bin="$build/bin"
work="$build/demo"
mkdir -p "$work"

for program in korvane64.dll outlook_standin.exe drop_target.exe; do
    if [ ! -f "$bin/$program" ]; then
        echo "demo: $bin/$program is missing; run make build first" >&2
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

# Installed where an installer would put it, with its texts beside it.
install_dir="$WINEPREFIX/drive_c/Program Files/Korvane"
mkdir -p "$install_dir"
cp "$bin/korvane64.dll" "$bin"/resource_*.txt "$install_dir/"

rm -f "$work/target-report.txt" "$work/standin-result.txt"
report=$(winepath -w "$work/target-report.txt" 2>/dev/null)
result=$(winepath -w "$work/standin-result.txt" 2>/dev/null)

if [ "$mode" = bench ]; then
    steps="reset-settings set:Ribbon.Microsoft.Outlook.Explorer=2;Korvane set:LogLevel=WARN connect bench:1,100,1000 shutdown"
    print=""
else
    steps="reset-settings set:Ribbon.Microsoft.Outlook.Explorer=2;Korvane set:CaptureClipboard=true connect ribbon
           press:cbTextFormat=json drag:all copy:mail:1 paste press:cbFormat=eml press:cbTextFormat=none drag:mails
           shutdown"
    print="--print"
fi

wineserver -k >/dev/null 2>&1 || true
export bin report result steps print mode
xvfb-run -a -s "-screen 0 1024x768x24" sh -c '
    wineserver -p </dev/null >/dev/null 2>&1
    wine cmd /c exit </dev/null >/dev/null 2>&1
    wine regsvr32 /s "C:\\Program Files\\Korvane\\korvane64.dll" </dev/null >/dev/null 2>&1
    printf "%s\n" "demo: add-in registered (regsvr32 C:\\Program Files\\Korvane\\korvane64.dll)"
    wine "$bin/drop_target.exe" --report "$report" </dev/null >/dev/null 2>&1 &
    status=0
    wine "$bin/outlook_standin.exe" --target-report "$report" --result "$result" $print $steps </dev/null || status=$?
    if [ "$mode" = demo ]; then
        temp=$(wine cmd /c echo %TEMP% </dev/null 2>/dev/null | tr -d "\r")
        printf "\n%s\n" "The files lie in $temp\\Korvane, that is $(readlink -f "$(winepath -u "$temp\\Korvane" 2>/dev/null)")"
        printf "%s\n" "The target report: $report; the stand-in steps: $result"
    fi
    wine regsvr32 /s /u "C:\\Program Files\\Korvane\\korvane64.dll" </dev/null >/dev/null 2>&1 || true
    wineserver -k >/dev/null 2>&1
    exit $status
'
