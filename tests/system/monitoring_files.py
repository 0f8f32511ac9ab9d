"""What is packaged for monitoring, as its tests read it."""

import json
import re

from processes import REPO

MONITORING = REPO / "monitoring"
PACKAGING = REPO / "packaging"


def dashboard():
    return json.loads((MONITORING / "trabex-dashboard.json").read_text(encoding="utf-8"))


def dashboard_expressions():
    """(title of the panel, expression) of all panels."""
    for panel in dashboard()["panels"]:
        for target in panel["targets"]:
            yield panel["title"], target["expr"]


def alert_rules():
    """The expressions of the alert rules; those of several lines are blocks."""
    text = (MONITORING / "trabex-alerts.yml").read_text(encoding="utf-8")
    for block, line in re.findall(r"^        expr: (?:\|\n((?:          .*\n)+)|(.+)\n)", text, re.MULTILINE):
        yield " ".join((block or line).split())


def selectors(expression):
    """(name, names of labels) of the series that an expression asks for."""
    for name, labels in re.findall(r"\b(trabex_\w+)(?:\{([^}]*)\})?", expression):
        yield name, re.findall(r"(\w+)\s*(?:=~|!~|!=|=)", labels)
