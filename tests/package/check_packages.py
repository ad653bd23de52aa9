#!/usr/bin/env python3
"""Reads the tables of both Windows Installer packages (msitools) and checks
what cannot be run here: the x86 package's custom actions need 32-bit
programs. Each package must install its own DLL and the texts in the view of
its bitness, run the add-in's entry points from the installed file (as the
system per machine, as the user per user) and upgrade in place.

    check_packages.py korvane-<v>-x64.msi korvane-<v>-x86.msi"""
import subprocess
import sys

IN_FILE, CONTINUE, ROLLBACK, DEFERRED, AS_SYSTEM = 17, 64, 256, 1024, 2048
ACTIONS = {  # action: (type, entry point, condition)
    "KvInstallMachine": (IN_FILE + DEFERRED + AS_SYSTEM, "Install", 'NOT REMOVE~="ALL" AND ALLUSERS'),
    "KvUndoMachine": (IN_FILE + ROLLBACK + DEFERRED + AS_SYSTEM + CONTINUE, "Uninstall", 'NOT REMOVE~="ALL" AND ALLUSERS'),
    "KvUninstallMachine": (IN_FILE + DEFERRED + AS_SYSTEM + CONTINUE, "Uninstall", 'REMOVE~="ALL" AND ALLUSERS'),
    "KvInstallUser": (IN_FILE + DEFERRED, "Install", 'NOT REMOVE~="ALL" AND NOT ALLUSERS'),
    "KvUndoUser": (IN_FILE + ROLLBACK + DEFERRED + CONTINUE, "Uninstall", 'NOT REMOVE~="ALL" AND NOT ALLUSERS'),
    "KvUninstallUser": (IN_FILE + DEFERRED + CONTINUE, "Uninstall", 'REMOVE~="ALL" AND NOT ALLUSERS'),
}
ARCHES = {  # arch: (DLL, 64-bit component attribute, program files folder, summary template)
    "x64": ("korvane64.dll", 256, "ProgramFiles64Folder", "x64;1033"),
    "x86": ("korvane32.dll", 0, "ProgramFilesFolder", "Intel;1033"),
}


def table(msi, name):
    text = subprocess.run(["msiinfo", "export", msi, name], check=True, capture_output=True, text=True).stdout
    return [line.split("\t") for line in text.splitlines()[3:]]


def check(msi, arch, failures):
    def expect(condition, message):
        if not condition:
            failures.append("%s: %s" % (msi, message))

    dll, bit64, program_files, template = ARCHES[arch]
    files = {row[2]: row[1] for row in table(msi, "File")}
    expect(set(files) == {dll, "resource_en.txt", "resource_de.txt", "resource_fr.txt"}, "files %s" % sorted(files))
    for component, _, directory, attributes, condition, _ in table(msi, "Component"):
        expect(int(attributes) & 256 == bit64, "component %s in the wrong registry view" % component)
        expect(directory == "INSTALLFOLDER", "component %s outside the install folder" % component)
    directories = {row[0]: row[1] for row in table(msi, "Directory")}
    expect(directories.get("INSTALLFOLDER") == program_files, "installs below %s" % directories.get("INSTALLFOLDER"))
    for row in table(msi, "Registry"):
        expect(row[1] == "-1", "registry row %s not per machine or per user as installed (root %s)" % (row[2], row[1]))
    conditions = {row[0]: row[4] for row in table(msi, "Component")}
    expect(conditions.get("MaxFilesSetting") == 'MAXFILES OR REMOVE~="ALL"', "MaxFiles written unconditionally")

    actions = {row[0]: row for row in table(msi, "CustomAction")}
    sequence = {row[0]: (row[1], int(row[2])) for row in table(msi, "InstallExecuteSequence")}
    for action, (kind, entry, condition) in ACTIONS.items():
        row = actions.get(action)
        expect(row is not None and (int(row[1]), row[2], row[3]) == (kind, "AddinDll", entry),
               "custom action %s is %s" % (action, row))
        expect(files.get(dll) == "AddinFile" and sequence.get(action, ("", 0))[0] == condition,
               "custom action %s runs when %s" % (action, sequence.get(action)))
        data = actions.get(action + "Data", [None, None, None, ""])
        expect(data[3].split("\\")[3:5] == ["[KVSCOPE]", "[RIBBONINFO]"], "%s gets %s" % (action, data[3]))
    expect(sequence["InstallFiles"][1] < sequence["KvInstallMachine"][1], "installs before the file is there")
    expect(sequence["KvUninstallMachine"][1] < sequence["RemoveFiles"][1], "uninstalls after the file is gone")
    expect(sequence["InstallValidate"][1] < sequence["RemoveExistingProducts"][1] < sequence["InstallInitialize"][1],
           "an upgrade does not remove the older version first")

    properties = {row[0]: row[1] for row in table(msi, "Property")}
    expect(properties.get("ALLUSERS") == "2" and properties.get("RIBBONINFO") == "1;", "defaults %s" % properties)
    secure = set(properties.get("SecureCustomProperties", "").split(";"))
    expect({"RIBBONINFO", "FRIENDLYNAME", "MAXFILES", "KEEPTEMPFILESMINUTES"} <= secure, "secure properties %s" % secure)
    summary = subprocess.run(["msiinfo", "suminfo", msi], check=True, capture_output=True, text=True).stdout
    expect("Template: %s" % template in summary, "platform: %s" % summary)
    return properties.get("UpgradeCode")


def main():
    failures = []
    codes = [check(msi, arch, failures) for msi, arch in zip(sys.argv[1:3], ARCHES)]
    if len(set(codes)) != 2:
        failures.append("both packages share the upgrade code %s" % codes)
    for failure in failures:
        print(failure)
    print("%d packages checked, %d failures" % (len(codes), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
