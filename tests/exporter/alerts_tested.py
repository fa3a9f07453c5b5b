#!/usr/bin/env python3
"""Fails unless every alert of a rules file has a promtool unit test that expects it to fire.

Usage: alerts_tested.py RULES.yml TESTS.yml (plain text scan: "- alert: NAME" in the rules,
"alertname: NAME" followed by a non-empty exp_alerts list in the tests)."""
import re
import sys

rules = open(sys.argv[1]).read()
tests = open(sys.argv[2]).read()
alerts = re.findall(r"^\s*- alert:\s*(\S+)", rules, re.M)
fired = set(re.findall(r"alertname:\s*(\S+)\s*\n\s*exp_alerts:\s*\n\s*- exp_labels", tests))
missing = [a for a in alerts if a not in fired]
if not alerts:
    sys.exit(f"no alerts found in {sys.argv[1]}")
if missing:
    sys.exit("alerts without a test that fires them: " + ", ".join(missing))
print(f"{len(alerts)} alerts, each fired by a test: {', '.join(alerts)}")
