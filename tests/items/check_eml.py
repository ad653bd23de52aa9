#!/usr/bin/env python3
"""Reads the .eml files that Korvane's MIME writer made (items_tests writes
them, with the .msg they came from and what that mail holds, into the folder
named by KORVANE_EML_SAMPLES) with Python's standard email package, and,
where msgconvert is installed, compares them with the .eml that msgconvert
makes from the same .msg.

    check_eml.py FOLDER

Exit status 0 when every sample passes, 1 otherwise (each failure printed).
"""
import email
import email.policy
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

ADDRESS_HEADERS = ["from", "sender", "to", "cc", "bcc"]


class Check:
    def __init__(self, sample):
        self.sample = sample
        self.failures = []

    def expect(self, condition, what):
        if not condition:
            self.failures.append(f"{self.sample}: {what}")

    def equal(self, actual, expected, what):
        self.expect(actual == expected, f"{what}: {actual!r} != {expected!r}")


def text_of(value):
    """Line ends as '\\n', without the one that ends the text."""
    return value.replace("\r\n", "\n").replace("\r", "\n").rstrip("\n")


def addresses(message, name):
    header = message[name]
    if header is None:
        return []
    return [address.addr_spec.lower() for address in header.addresses]


def repaired(text):
    """UTF-8 that was read as Latin-1 and encoded again, decoded back; other text as it is."""
    try:
        return text.encode("latin-1").decode("utf-8")
    except (UnicodeEncodeError, UnicodeDecodeError):
        return text


def attachments_of(message):
    found = []
    for part in message.iter_attachments():
        found.append((part.get_filename(), part.get_payload(decode=True)))
    return found


def check_raw(check, raw):
    check.expect(re.search(rb"(?<!\r)\n", raw) is None, "a line feed without carriage return")
    check.expect(re.search(rb"\r(?!\n)", raw) is None, "a carriage return without line feed")
    lines = raw.split(b"\r\n")
    check.expect(max(len(line) for line in lines) <= 998, "a line longer than 998")
    head = raw.split(b"\r\n\r\n", 1)[0]
    check.expect(max(len(line) for line in head.split(b"\r\n")) <= 78, "a header line longer than 78")
    names = [line.split(b":", 1)[0].decode().lower() for line in head.split(b"\r\n") if line[:1] not in (b" ", b"\t")]
    address_positions = [i for i, n in enumerate(names) if n in ADDRESS_HEADERS]
    other_positions = [i for i, n in enumerate(names) if n not in ADDRESS_HEADERS]
    check.expect(not address_positions or not other_positions or max(address_positions) < min(other_positions),
                 f"address headers are not first: {names}")
    check.expect(names[-1].startswith("content-"), f"the block does not end with a MIME header: {names[-1]}")


def check_parsed(check, message, expected):
    check.expect(not message.defects, f"parser defects {message.defects}")
    check.equal(str(message["subject"]), expected["subject"], "subject")
    check.equal(addresses(message, "from"), [expected["from"].lower()], "from")
    for kind in ("to", "cc", "bcc"):
        check.equal(addresses(message, kind), [a.lower() for a in expected[kind]], kind)
    check.equal(message["mime-version"], "1.0", "MIME-Version")
    plain = message.get_body(("plain",))
    check.expect(plain is not None, "no text/plain body")
    if plain is not None:
        check.equal(text_of(plain.get_content()), text_of(expected["body"]), "plain text")
    html = message.get_body(("html",))
    if expected["html"]:
        check.expect(html is not None, "no text/html body")
        check.expect(message.get_content_type() in ("multipart/alternative", "multipart/mixed"),
                     f"top-level type {message.get_content_type()}")
        if html is not None:
            check.equal(text_of(html.get_content()), text_of(expected["html"]), "HTML")
    else:
        check.expect(html is None, "an HTML body the mail doesn't have")


def expected_attachments(folder, expected):
    result = []
    for attachment in expected["attachments"]:
        with open(os.path.join(folder, attachment["file"]), "rb") as data:
            result.append((attachment["name"], data.read()))
    return result


def compare_with_msgconvert(check, folder, sample, ours, expected_files):
    tool = shutil.which("msgconvert")
    if tool is None:
        return False
    with tempfile.TemporaryDirectory() as scratch:
        target = os.path.join(scratch, sample + ".eml")
        result = subprocess.run([tool, "--outfile", target, os.path.join(folder, sample + ".msg")],
                                capture_output=True, text=True)
        check.expect(result.returncode == 0, f"msgconvert failed: {result.stderr.strip()}")
        if result.returncode != 0:
            return True
        with open(target, "rb") as data:
            theirs = email.message_from_bytes(data.read(), policy=email.policy.default)
    # msgconvert takes To and Cc from the display lists (names only), and
    # writes 8-bit text that it encoded twice; so recipients are not compared
    # and its text is repaired before comparing.
    check.equal(str(ours["subject"]), repaired(str(theirs["subject"])), "subject against msgconvert")
    for name in ("date", "message-id", "in-reply-to"):
        check.equal(ours[name], theirs[name], f"{name} against msgconvert")
    ours_plain = ours.get_body(("plain",))
    theirs_plain = theirs.get_body(("plain",))
    check.expect(theirs_plain is not None, "msgconvert wrote no text/plain body")
    if ours_plain is not None and theirs_plain is not None:
        check.equal(text_of(ours_plain.get_content()), repaired(text_of(theirs_plain.get_content())),
                    "plain text against msgconvert")
    check.equal(attachments_of(ours), attachments_of(theirs), "attachments against msgconvert")
    return True


def main():
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    folder = sys.argv[1]
    samples = sorted(name[: -len(".expected.json")] for name in os.listdir(folder) if name.endswith(".expected.json")) \
        if os.path.isdir(folder) else []
    if not samples:
        print(f"no samples in {folder}: run items_tests with KORVANE_EML_SAMPLES set to it first")
        return 1
    failures = []
    compared = 0
    for sample in samples:
        check = Check(sample)
        with open(os.path.join(folder, sample + ".expected.json"), encoding="utf-8") as data:
            expected = json.load(data)
        with open(os.path.join(folder, sample + ".eml"), "rb") as data:
            raw = data.read()
        check_raw(check, raw)
        message = email.message_from_bytes(raw, policy=email.policy.default)
        check_parsed(check, message, expected)
        files = expected_attachments(folder, expected)
        check.equal(attachments_of(message), files, "attachments")
        if compare_with_msgconvert(check, folder, sample, message, files):
            compared += 1
        failures += check.failures
        print(f"{sample}: {'ok' if not check.failures else 'FAILED'}")
    for failure in failures:
        print(failure)
    print(f"{len(samples)} samples, {compared} compared with msgconvert, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
