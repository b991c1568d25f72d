#!/usr/bin/env python3
"""Checks the translated text files against the English message catalogue.

Usage: check_translations.py <repository root>

Reads lib/libi18n/catalogue.json and module/definition/text/<Language>.json and
checks, per language: the key set (derived from the catalogue by the rules
below), the key order, the file layout, and per text the placeholders, doubled
percent signs, markup tags, {cur} template markers, italic values and product
terms against the English text. Prints one line per problem and a final line
"N passed, M failed" counting languages; exits 1 on any problem.
"""
import collections
import json
import os
import re
import sys

# Every language leaves out the channel names and lookup texts; the core
# product translates those itself.
DROPPED_PREFIXES = ("channel.", "lookup.")

# Certificate helper errors that only the German and Spanish texts carry.
REDUCED_DROPS = frozenset(
    "certificate_helper.error." + name
    for name in (
        "bad_alloc",
        "certificate_revocation_list_der_invalid",
        "certificate_revocation_list_empty",
        "certificate_revocation_list_pem_invalid",
        "certificate_revocation_list_signature_verification_failed",
        "could_not_load_public_key",
        "get_x509_issuer_failed",
        "get_x509_subject_failed",
        "public_key_empty",
        "signature_verification_failed",
        "store_ctx_init_failed",
        "store_set_default_paths_failed",
        "windows_add_cert_failed",
        "windows_cert_store_open_failed",
    )
)

# Keys the reduced languages carry although English lacks them, with the
# exact text each must have.
REDUCED_EXTRAS = {"connection_security.security_policy.option.Basic256": "Basic256"}

FULL, REDUCED = "full", "reduced"
LANGUAGES = {
    "German": FULL,
    "Spanish": FULL,
    "Russian": REDUCED,
    "Brazilian": REDUCED,
    "Dutch": REDUCED,
    "Japanese": REDUCED,
    "French": REDUCED,
    "SimplifiedChinese": REDUCED,
}

PERCENT = re.compile(r"%([0-9]+):s|%%|%")
TAG = re.compile(r"\[a\s[^\]]*\]\]?|\[/?(?:br|b|i|a)\]")
ITALIC = re.compile(r"\[i\](.*?)\[/i\]")
CUR = "{cur}"
# Names and values that no translation may change.
KEPT_TERMS = (
    "KOLV", "OPC UA", "NodeID", "DataType", "BrowseName", "DisplayName",
    "Basic256Sha256", "PEM", "DER", "URI", "SAS", "SATA", "RAID", "Int64", "JSON",
)


def expected_keys(catalogue_keys, group):
    """Keys a language file must hold; extra keys come last, order is checked separately."""
    keys = [k for k in catalogue_keys if not k.startswith(DROPPED_PREFIXES)]
    if group == REDUCED:
        keys = [k for k in keys if k not in REDUCED_DROPS] + list(REDUCED_EXTRAS)
    return keys


def rule_problems(catalogue_keys):
    """The rules name catalogue keys; a renamed key would silently change the key sets."""
    present = set(catalogue_keys)
    problems = [f"catalogue: excluded key {k} no longer exists" for k in sorted(REDUCED_DROPS - present)]
    problems += [f"catalogue: extra key {k} is now in the catalogue" for k in REDUCED_EXTRAS if k in present]
    return problems


def percent_tokens(text):
    """(placeholders, doubled percent count, stray percent count)."""
    placeholders = collections.Counter()
    doubled = stray = 0
    for m in PERCENT.finditer(text):
        if m.group(1) is not None:
            placeholders[m.group(0)] += 1
        elif m.group(0) == "%%":
            doubled += 1
        else:
            stray += 1
    return placeholders, doubled, stray


def unbalanced_tags(text):
    """Describes the first misnested [b]/[i]/[a] pair, or returns None."""
    stack = []
    for tag in TAG.findall(text):
        if tag == "[br]":
            continue
        if not tag.startswith("[/"):
            stack.append("a" if tag.startswith("[a ") else tag[1])
        elif not stack or stack.pop() != tag[2]:
            return f"closing {tag} does not match an open tag"
    return f"[{stack[-1]}] is not closed" if stack else None


def term_present(term, text):
    return re.search(r"(?<![A-Za-z0-9])" + re.escape(term) + r"(?![A-Za-z0-9])", text) is not None


def text_problems(english, translated):
    """Problems of one translated text measured against its English text."""
    if not isinstance(translated, str) or not translated.strip():
        return ["text is empty or not a string"]
    problems = []
    en_ph, en_doubled, _ = percent_tokens(english)
    tr_ph, tr_doubled, tr_stray = percent_tokens(translated)
    if en_ph != tr_ph:
        problems.append(f"placeholders {sorted(tr_ph.elements())}, English has {sorted(en_ph.elements())}")
    if en_doubled != tr_doubled:
        problems.append(f"{tr_doubled} doubled percent signs, English has {en_doubled}")
    if tr_stray:
        problems.append(f"{tr_stray} stray '%' (write '%%' for a literal percent sign)")
    en_tags = collections.Counter(TAG.findall(english))
    tr_tags = collections.Counter(TAG.findall(translated))
    if en_tags != tr_tags:
        missing = sorted((en_tags - tr_tags).elements())
        surplus = sorted((tr_tags - en_tags).elements())
        problems.append(f"markup differs: missing {missing}, surplus {surplus}")
    else:
        nesting = unbalanced_tags(translated)
        if nesting:
            problems.append(f"markup misnested: {nesting}")
    if english.count(CUR) != translated.count(CUR):
        problems.append(f"{translated.count(CUR)} {CUR} markers, English has {english.count(CUR)}")
    en_italic = collections.Counter(ITALIC.findall(english))
    tr_italic = collections.Counter(ITALIC.findall(translated))
    if en_italic != tr_italic:
        problems.append(f"italic values {sorted(tr_italic.elements())}, English has {sorted(en_italic.elements())}")
    for term in KEPT_TERMS:
        if term_present(term, english) and not term_present(term, translated):
            problems.append(f"'{term}' is missing")
    return problems


def load_language(path):
    """(ordered pairs, layout problems); raises ValueError if the file cannot be read."""
    with open(path, encoding="utf-8") as f:
        raw = f.read()
    pairs = json.loads(raw, object_pairs_hook=lambda p: p)
    if not isinstance(pairs, list):
        raise ValueError("top level is not an object")
    problems = []
    if "\\u" in raw:
        problems.append("file uses \\u escapes; write the text as UTF-8")
    key_lines = sum(1 for line in raw.splitlines() if line.lstrip().startswith('"'))
    if key_lines != len(pairs):
        problems.append(f"{len(pairs)} keys on {key_lines} lines; write one key per line")
    return pairs, problems


def check_language(root, language, group, catalogue):
    path = os.path.join(root, "module", "definition", "text", language + ".json")
    try:
        pairs, problems = load_language(path)
    except (OSError, ValueError) as e:
        return [f"cannot read {path}: {e}"]
    counts = collections.Counter(k for k, _ in pairs)
    problems += [f"{k}: duplicate key" for k, n in counts.items() if n > 1]
    texts = dict(pairs)
    expected = expected_keys(list(catalogue), group)
    problems += [f"{k}: missing" for k in expected if k not in texts]
    problems += [f"{k}: not expected for this language" for k in texts if k not in set(expected)]
    order = [k for k, _ in pairs if k in catalogue]
    if order != sorted(order, key=list(catalogue).index):
        problems.append("keys are not in catalogue order")
    for key in expected:
        if key not in texts:
            continue
        if key in REDUCED_EXTRAS and group == REDUCED:
            if texts[key] != REDUCED_EXTRAS[key]:
                problems.append(f"{key}: must be exactly {REDUCED_EXTRAS[key]!r}")
            continue
        problems += [f"{key}: {p}" for p in text_problems(catalogue[key], texts[key])]
    return problems


# The checker's own cases: English, translation, a fragment the report must
# contain (None: no problem may be reported).
SELF_CHECK = [
    ("Value %0:s of %1:s.", "Wert %1:s von %0:s.", None),
    ("Value %0:s of %1:s.", "Wert %0:s.", "placeholders"),
    ("Value %0:s.", "Wert %0:s %0:s.", "placeholders"),
    ("CPU %%", "CPU %", "stray"),
    ("CPU %%", "CPU", "doubled"),
    ("A[br][b]B[/b]", "A[b]B[/b]", "markup differs"),
    ("[b]B[/b] [i]4840[/i]", "[/b]B[b] [i]4840[/i]", "misnested"),
    ("see [a href='x' target='_blank']]M[/a].", "siehe [a href='x' target='_blank']M[/a].", "markup differs"),
    ("Channel #{cur}", "Kanal #", "{cur}"),
    ("port [i]4840[/i]", "Port [i]4841[/i]", "italic"),
    ("the OPC UA server", "der Server", "'OPC UA'"),
    ("the Basic256Sha256 policy", "die Basic256-Richtlinie", "'Basic256Sha256'"),
    ("values of NodeIDs", "Werte von Knoten", None),
    ("No Value is set.", "", "empty"),
]


def self_check():
    problems = []
    for english, translated, fragment in SELF_CHECK:
        found = text_problems(english, translated)
        if fragment is None and found:
            problems.append(f"self-check: {translated!r} reported {found}")
        elif fragment is not None and not any(fragment in p for p in found):
            problems.append(f"self-check: {translated!r} not reported as {fragment!r} (got {found})")
    return problems


def main(argv):
    if len(argv) != 2:
        print(f"usage: {argv[0]} <repository root>", file=sys.stderr)
        return 2
    root = argv[1]
    with open(os.path.join(root, "lib", "libi18n", "catalogue.json"), encoding="utf-8") as f:
        catalogue = json.load(f, object_pairs_hook=collections.OrderedDict)
    general = self_check() + rule_problems(list(catalogue))
    for p in general:
        print(p)
    passed = failed = 0
    for language, group in LANGUAGES.items():
        problems = check_language(root, language, group, catalogue)
        for p in problems:
            print(f"{language}: {p}")
        if problems:
            failed += 1
        else:
            passed += 1
    print(f"{passed} passed, {failed} failed")
    return 1 if failed or general else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
