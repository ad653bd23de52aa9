#!/usr/bin/env python3
"""check_eml.py FOLDER: reads the .eml samples of Korvane's MIME writer that
items_tests leaves there (with their .msg and what each mail holds) with
Python's email package and compares them with msgconvert's .eml of the same
.msg, part for part, at every depth. Exit status 1 on any failure."""
import datetime
import email
import email.policy
import email.utils
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
    return [address.addr_spec.lower() for address in header.addresses] if header is not None else []


def repaired(text, code_page=0):
    """msgconvert's text, decoded back: UTF-8 that it read as Latin-1 and encoded
    again; 8-bit text in another code page that it read as Windows-1252."""
    try:
        if code_page:
            return text.encode("cp1252").decode(f"cp{code_page}")
        return text.encode("latin-1").decode("utf-8")
    except (UnicodeEncodeError, UnicodeDecodeError):
        return text


def own_parts(part):
    """The part and the parts inside it, not descending into attached messages."""
    yield part
    if part.get_content_maintype() == "multipart":
        for child in part.iter_parts():
            yield from own_parts(child)


def leaves(message):
    """(file name, bytes) of every part that carries a file, attached messages excepted."""
    return [(part.get_filename(), part.get_payload(decode=True)) for part in own_parts(message)
            if not part.is_multipart() and part.get_content_type() != "message/rfc822" and part.get_filename()]


def attached_messages(message):
    """The message/rfc822 parts of this message's own level, as (file name, message)."""
    return [(part.get_filename(), part.get_content()) for part in message.iter_attachments()
            if part.get_content_type() == "message/rfc822"]


def part_of_type(message, content_type):
    return next((part for part in own_parts(message) if part.get_content_type() == content_type), None)


def check_raw(check, raw):
    """Line ends and header line lengths are checked by items_tests, for every mail."""
    check.expect(max(len(line) for line in raw.split(b"\r\n")) <= 998, "a line longer than 998")
    head = raw.split(b"\r\n\r\n", 1)[0]
    names = [line.split(b":", 1)[0].decode().lower() for line in head.split(b"\r\n") if line[:1] not in (b" ", b"\t")]
    address_positions = [i for i, n in enumerate(names) if n in ADDRESS_HEADERS]
    other_positions = [i for i, n in enumerate(names) if n not in ADDRESS_HEADERS]
    check.expect(not address_positions or not other_positions or max(address_positions) < min(other_positions),
                 f"address headers are not first: {names}")
    check.expect(names[-1].startswith("content-"), f"the block does not end with a MIME header: {names[-1]}")


def read_file(folder, name):
    with open(os.path.join(folder, name), "rb") as data:
        return data.read()


def check_from(check, message, expected, where):
    if expected["from"]:
        check.equal(addresses(message, "from"), [expected["from"].lower()], f"{where}from")
        return
    # No address known: an empty group named after the sender (RFC 6854).
    header = message["from"]
    check.expect(header is not None, f"{where}no From header")
    if header is not None:
        check.equal([group.display_name for group in header.groups], [expected["from_name"]], f"{where}From group")
        check.equal(header.addresses, (), f"{where}From addresses")


def check_related(check, folder, message, expected, where):
    """The HTML and its pictures in one multipart/related; every cid: of the HTML resolves there."""
    related = part_of_type(message, "multipart/related")
    check.expect(related is not None, f"{where}no multipart/related")
    if related is None:
        return
    parts = list(related.iter_parts())
    check.equal(parts[0].get_content_type(), "text/html", f"{where}first part of multipart/related")
    by_cid = {part["content-id"].strip("<>"): part for part in parts[1:] if part["content-id"]}
    for cid in re.findall(r'cid:([^"\'> ]+)', parts[0].get_content()):
        check.expect(cid in by_cid, f"{where}cid:{cid} does not resolve")
    for picture in expected["related"]:
        part = by_cid.get(picture["cid"].strip("<>"))
        check.expect(part is not None, f"{where}picture {picture['name']} is not in multipart/related")
        if part is not None:
            check.equal(part.get_payload(decode=True), read_file(folder, picture["file"]), f"{where}{picture['name']}")


def check_parsed(check, folder, message, expected, where=""):
    check.expect(not message.defects, f"{where}parser defects {message.defects}")
    check.equal(str(message["subject"]), expected["subject"], f"{where}subject")
    check_from(check, message, expected, where)
    for kind in ("to", "cc", "bcc"):
        check.equal(addresses(message, kind), [a.lower() for a in expected[kind]], f"{where}{kind}")
    check.equal(addresses(message, "reply-to"), [a.lower() for a in expected["reply_to"]], f"{where}reply-to")
    check.equal(message["importance"], expected["importance"], f"{where}importance")
    if expected["date"]:
        date = email.utils.parsedate_to_datetime(message["date"])
        check.equal(date, datetime.datetime.strptime(expected["date"], "%Y-%m-%dT%H:%M:%S%z"), f"{where}date")
    if not where:
        check.equal(message["mime-version"], "1.0", "MIME-Version")
    plain = message.get_body(("plain",))
    check.expect(plain is not None, f"{where}no text/plain body")
    if plain is not None:
        check.equal(text_of(plain.get_content()), text_of(expected["body"]), f"{where}plain text")
    html = message.get_body(("html",))
    if expected["html"]:
        check.expect(html is not None, f"{where}no text/html body")
        if html is not None:
            check.equal(text_of(html.get_content()), text_of(expected["html"]), f"{where}HTML")
    else:
        check.expect(html is None, f"{where}an HTML body the mail doesn't have")
    rtf = part_of_type(message, "text/rtf")
    wanted = "" if expected["html"] else expected["rtf_source"]  # HTML encapsulated in RTF becomes the HTML part
    check.equal(text_of(rtf.get_content()) if rtf is not None else "", text_of(wanted), f"{where}RTF")
    if expected["related"]:
        check_related(check, folder, message, expected, where)
    files = [(a["name"], read_file(folder, a["file"])) for a in expected["attachments"]]
    ours = [(part.get_filename(), part.get_payload(decode=True)) for part in message.iter_attachments()
            if part.get_content_type() != "message/rfc822"]
    check.equal(ours, files, f"{where}attachments")
    attached = attached_messages(message)
    check.equal([name for name, _ in attached], [a["name"] for a in expected["attached"]], f"{where}attached messages")
    for (name, inner), wanted in zip(attached, expected["attached"]):
        check_parsed(check, folder, inner, wanted["message"], f"{where}{name} > ")


def compare_parts(check, ours, theirs, code_page, where):
    # msgconvert takes To and Cc from the display lists (names only), writes
    # 8-bit text that it encoded twice (or read in Windows-1252 whatever the
    # message's code page, its subject then lost), takes the submit time as
    # the date, and carries the compressed RTF itself: so recipients and
    # dates are not compared, its text is repaired, and its RTF is compared
    # with the RTF the mail was made from.
    if not code_page:
        check.equal(str(ours["subject"]), repaired(str(theirs["subject"])), f"{where}subject against msgconvert")
    for name in ("message-id", "in-reply-to"):
        check.equal(ours[name], theirs[name], f"{where}{name} against msgconvert")
    ours_plain = ours.get_body(("plain",))
    theirs_plain = theirs.get_body(("plain",))
    if ours_plain is not None and theirs_plain is not None:
        check.equal(text_of(ours_plain.get_content()), repaired(text_of(theirs_plain.get_content()), code_page),
                    f"{where}plain text against msgconvert")
    check.equal(leaves(ours), [(repaired(name, code_page), data) for name, data in leaves(theirs)
                               if not name.endswith(".rtf")], f"{where}attachments against msgconvert")
    ours_attached = attached_messages(ours)
    theirs_attached = [part.get_content() for part in theirs.iter_attachments()
                       if part.get_content_type() == "message/rfc822"]
    check.equal(len(theirs_attached), len(ours_attached), f"{where}attached messages against msgconvert")
    for (name, inner), their_inner in zip(ours_attached, theirs_attached):
        compare_parts(check, inner, their_inner, code_page, f"{where}{name} > ")


def their_rtf(theirs):
    for part in own_parts(theirs):
        if part.get_content_type() in ("application/rtf", "text/rtf"):
            return part.get_payload(decode=True).decode("latin-1")
    return ""


def compare_with_msgconvert(check, folder, sample, ours, expected):
    tool = shutil.which("msgconvert")
    if tool is None:
        return False
    with tempfile.TemporaryDirectory() as scratch:
        target = os.path.join(scratch, sample + ".eml")
        result = subprocess.run([tool, "--outfile", target, os.path.join(folder, sample + ".msg")],
                                capture_output=True, text=True)
        if expected["code_page"] and "Unknown encoding" in result.stderr:
            print(f"{sample}: msgconvert can't read code page {expected['code_page']}: {result.stderr.strip()}")
            return False
        check.expect(result.returncode == 0, f"msgconvert failed: {result.stderr.strip()}")
        if result.returncode != 0:
            return True
        with open(target, "rb") as data:
            theirs = email.message_from_bytes(data.read(), policy=email.policy.default)
    compare_parts(check, ours, theirs, expected["code_page"], "")
    if expected["rtf_source"]:
        # RTF readers skip raw line ends; msgconvert's dictionary has LF CR
        # where the format's has CR LF, so line ends are not compared.
        check.equal(re.sub(r"[\r\n]", "", their_rtf(theirs)), re.sub(r"[\r\n]", "", expected["rtf_source"]),
                    "the compressed RTF as msgconvert decompresses it")
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
        raw = read_file(folder, sample + ".eml")
        check_raw(check, raw)
        message = email.message_from_bytes(raw, policy=email.policy.default)
        check_parsed(check, folder, message, expected)
        if compare_with_msgconvert(check, folder, sample, message, expected):
            compared += 1
        failures += check.failures
        print("\n".join([f"{sample}: {'ok' if not check.failures else 'FAILED'}"] + check.failures))
    print(f"{len(samples)} samples, {compared} compared with msgconvert, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
