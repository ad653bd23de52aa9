#!/usr/bin/env python3
"""Checks the Group Policy templates: well-formed XML, every setting that has a
machine place (and no other) set by a policy in the product key under both
registry views, with its value name, and every text each policy refers to
present in each language.

    check_policy.py <folder with korvane.admx and <language>/korvane.adml>"""
import os
import re
import sys
import xml.etree.ElementTree as ElementTree

NS = {"p": "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"}
PRODUCT = r"Software\QUEMBROOK\Korvane Addin for Microsoft Outlook"
KEYS = {PRODUCT, PRODUCT.replace("Software\\", "Software\\Wow6432Node\\", 1)}
# The settings with a machine place: all but the obsolete TextAsJson and the
# log settings, which are read from the user's place only.
SETTINGS = {"Locked", "Format", "IgnoreTargetEffectIfDroppedIntoOtherApplication", "TextFormat", "SaveOnBeginDrag",
            "ExtractMailAddress", "DecryptEnabled", "DecryptWithRedemption", "SaveWithRedemptionFormat",
            "TempFileReadOnly", "CaptureClipboard", "MaxFiles", "KeepTempFilesMinutes",
            "Ribbon.Microsoft.Outlook.Explorer"}
CHOICES = {"Format": {"msg", "eml"}, "TextFormat": {"none", "table", "json"}}
LANGUAGES = ("en-US", "de-DE", "fr-FR")


def main(folder):
    failures = []
    admx = ElementTree.parse(os.path.join(folder, "korvane.admx")).getroot()
    placed = set()
    for policy in admx.iterfind("p:policies/p:policy", NS):
        names = {policy.get("valueName")} | {e.get("valueName") for e in policy.iterfind("p:elements/*", NS)}
        names.discard(None)
        if policy.get("class") != "Machine" or policy.get("key") not in KEYS or len(names) != 1:
            failures.append("policy %s: class %s, key %s, values %s" % (policy.get("name"), policy.get("class"),
                                                                       policy.get("key"), names))
            continue
        name = names.pop()
        placed.add((policy.get("key"), name))
        values = {v.text for v in policy.iterfind(".//p:value/p:string", NS)}
        if name in CHOICES and values != CHOICES[name]:
            failures.append("policy %s offers %s" % (policy.get("name"), sorted(values)))
    wanted = {(key, name) for key in KEYS for name in SETTINGS}
    for key, name in sorted(wanted - placed):
        failures.append("no policy for %s in %s" % (name, key))
    for key, name in sorted(placed - wanted):
        failures.append("a policy for %s in %s, which is no setting's machine place" % (name, key))

    text = open(os.path.join(folder, "korvane.admx"), encoding="utf-8").read()
    strings = set(re.findall(r"\$\(string\.([^)]+)\)", text))
    presentations = set(re.findall(r"\$\(presentation\.([^)]+)\)", text))
    for language in LANGUAGES:
        adml = ElementTree.parse(os.path.join(folder, language, "korvane.adml")).getroot()
        have = {s.get("id") for s in adml.iterfind(".//p:stringTable/p:string", NS) if (s.text or "").strip()}
        shown = {p.get("id") for p in adml.iterfind(".//p:presentationTable/p:presentation", NS)}
        for missing in sorted(strings - have):
            failures.append("%s: no text %s" % (language, missing))
        for missing in sorted(presentations - shown):
            failures.append("%s: no presentation %s" % (language, missing))
    for failure in failures:
        print(failure)
    print("%d policies, %d languages, %d failures" % (len(placed), len(LANGUAGES), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
