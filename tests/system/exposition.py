"""The text format of Prometheus (0.0.4), read strictly: whatever a reader may reject is an error here."""

import math
import re

_NAME = re.compile(r"[a-zA-Z_:][a-zA-Z0-9_:]*")
_LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\\\|\\"|\\n)*)"(,|$)')
_VALUE = re.compile(r"[-+]?(?:[0-9]+(?:\.[0-9]*)?(?:[eE][-+]?[0-9]+)?|Inf)|NaN")
_TYPES = ("counter", "gauge", "histogram")


class BadExposition(Exception):
    """What is wrong with the text."""


def _labels(text):
    labels = {}
    while text:
        found = _LABEL.match(text)
        if not found or found.group(1) in labels:
            raise BadExposition(f"labels {text!r}")
        labels[found.group(1)] = found.group(2)
        text = text[found.end():]
        if found.group(3) == "," and not text:
            raise BadExposition("a comma behind the last label")
    return labels


class _Family:
    def __init__(self, name):
        self.name = name
        self.type = None

    def takes(self, sample):
        if self.type != "histogram":
            return sample == self.name
        return sample in (self.name + "_bucket", self.name + "_sum", self.name + "_count")


def read_exposition(text):
    """The samples as {(name, ((label, value), ...)): number}, and the types of the families by their names."""
    if not text.endswith("\n"):
        raise BadExposition("no line end at the end")
    samples = {}
    families = {}
    family = None
    for line in text[:-1].split("\n"):
        if line.startswith("# HELP "):
            name, _, help_text = line[7:].partition(" ")
            if not _NAME.fullmatch(name) or name in families or not help_text:
                raise BadExposition(line)
            family = families[name] = _Family(name)
        elif line.startswith("# TYPE "):
            name, _, type_text = line[7:].partition(" ")
            if family is None or name != family.name or family.type or type_text not in _TYPES:
                raise BadExposition(line)
            if (type_text == "counter") != name.endswith("_total"):
                raise BadExposition(f"{name} is a {type_text}")
            family.type = type_text
        else:
            found = _NAME.match(line)
            name = found.group() if found else ""
            rest = line[len(name):]
            labels = {}
            if rest.startswith("{"):
                inside, closed, rest = rest[1:].rpartition("}")
                if not closed:
                    raise BadExposition(line)
                labels = _labels(inside)
            if not rest.startswith(" ") or not _VALUE.fullmatch(rest[1:]):
                raise BadExposition(line)
            if family is None or family.type is None or not family.takes(name):
                raise BadExposition(f"{line} stands under another family")
            key = (name, tuple(sorted(labels.items())))
            if key in samples:
                raise BadExposition(f"{line} stands twice")
            samples[key] = float(rest[1:])
    for one in families.values():
        if one.type == "histogram":
            _check_histogram(one.name, samples)
    return samples, {name: one.type for name, one in families.items()}


def _check_histogram(name, samples):
    buckets = [(float(dict(labels)["le"]), value) for (sample, labels), value in samples.items()
               if sample == name + "_bucket"]
    bounds = [bound for bound, _ in buckets]
    counts = [count for _, count in buckets]
    if bounds != sorted(set(bounds)) or not bounds or not math.isinf(bounds[-1]):
        raise BadExposition(f"the buckets of {name} have the bounds {bounds}")
    if counts != sorted(counts) or counts[-1] != samples[(name + "_count", ())]:
        raise BadExposition(f"the buckets of {name} have the counts {counts}")
