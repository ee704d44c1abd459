#!/usr/bin/python3
"""Checks a Grafana dashboard against the SNMP exporter module it shows.

Usage: check_dashboard.py DASHBOARD.json SNMP.yml MODULE

Every PromQL query of the dashboard (panel targets, rows' panels, template
variables) may name only series the module produces: a metric's name, or
NAME_info for an EnumAsInfo metric. Label matchers on a series and the
labels of by (...) / without (...) must be labels that series carries (its
indexes, lookups, its own name for state sets and infos, and the target
labels instance and job). A panel that shows one status gauge with enum
values as it is (a plain selector) must map each value to its name. Prints each problem and
exits 1 when there is any, 2 when an input does not read, 0 otherwise.
"""

import json
import re
import sys

try:
    import yaml
except ImportError:
    sys.stderr.write("check_dashboard: PyYAML is missing (Debian: python3-yaml)\n")
    sys.exit(77)

# Labels Prometheus adds to every scraped series.
TARGET_LABELS = {"instance", "job"}

KEYWORDS = {"and", "or", "unless", "bool", "offset", "by", "without", "on", "ignoring",
            "group_left", "group_right", "inf", "nan"}

IDENT = r"[A-Za-z_:][A-Za-z0-9_:]*"


def series_of(module):
    """{series name: (set of labels, enum_values or None)} of a module."""
    series = {}
    for metric in module.get("metrics") or []:
        labels = set(TARGET_LABELS)
        labels.update(index["labelname"] for index in metric.get("indexes") or [])
        labels.update(lookup["labelname"] for lookup in metric.get("lookups") or [])
        kind = metric.get("type")
        name = metric["name"]
        if kind in ("EnumAsStateSet", "EnumAsInfo", "DisplayString", "OctetString", "Bits"):
            labels.add(name)
        enums = metric.get("enum_values") if kind == "gauge" else None
        series[name + "_info" if kind == "EnumAsInfo" else name] = (labels, enums)
    return series


def strip_strings(expr):
    return re.sub(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'', '""', expr)


def check_expr(expr, series, where, problems):
    """Appends to problems what is wrong with one query; returns the series it names."""
    text = strip_strings(expr)
    named = []
    # NAME{matchers}: the matchers' labels must be the series'.
    for match in re.finditer(r"(%s)?\s*\{([^}]*)\}" % IDENT, text):
        name, matchers = match.group(1), match.group(2)
        for label in re.findall(r"(%s)\s*(?:=~|!~|!=|=)" % IDENT, matchers):
            if label == "__name__":
                problems.append("%s: matches on __name__: %s" % (where, expr))
            elif name in series and label not in series[name][0]:
                problems.append("%s: %s has no label %s" % (where, name, label))
    body = re.sub(r"\{[^}]*\}", " ", text)
    body = re.sub(r"\[[^\]]*\]", " ", body)
    grouping = []
    for match in re.finditer(r"\b(by|without|on|ignoring|group_left|group_right)\s*\(([^)]*)\)",
                             body):
        grouping += [l.strip() for l in match.group(2).split(",") if l.strip()]
    body = re.sub(r"\b(by|without|on|ignoring|group_left|group_right)\s*\([^)]*\)", " ", body)
    for match in re.finditer(r"(?<![\w$.])(%s)(\s*\()?" % IDENT, body):
        word, call = match.group(1), match.group(2)
        if call or word.lower() in KEYWORDS or re.fullmatch(r"\d.*", word):
            continue
        if word not in series:
            problems.append("%s: %s is no series of the module: %s" % (where, word, expr))
        else:
            named.append(word)
    for label in grouping:
        if named and not any(label in series[name][0] for name in named):
            problems.append("%s: no series of %s has the label %s" % (where, expr, label))
    if not named:
        problems.append("%s: names no series: %s" % (where, expr))
    return named


def label_values_query(query):
    """The series of a label_values(SERIES, LABEL) variable query, or the query."""
    match = re.fullmatch(r"\s*label_values\((.*),\s*(%s)\s*\)\s*" % IDENT, query)
    return (match.group(1), match.group(2)) if match else (query, None)


def panels_of(dashboard):
    for panel in dashboard.get("panels") or []:
        yield panel
        for inner in panel.get("panels") or []:
            yield inner


def check_mappings(panel, series, where, problems):
    """A panel that shows one status gauge as it is maps every enum value to its name."""
    shown = set()
    for target in panel.get("targets") or []:
        match = re.fullmatch(r"\s*(%s)\s*(\{[^}]*\})?\s*" % IDENT,
                             strip_strings(target.get("expr", "")))
        if not match:
            return
        shown.add(match.group(1))
    if len(shown) != 1:
        return
    name = shown.pop()
    enums = series.get(name, (None, None))[1]
    if not enums:
        return
    mapped = {}
    defaults = (panel.get("fieldConfig") or {}).get("defaults") or {}
    for mapping in defaults.get("mappings") or []:
        if mapping.get("type") == "value":
            for key, value in (mapping.get("options") or {}).items():
                mapped[str(key)] = value.get("text")
    for number, name in enums.items():
        if mapped.get(str(number)) != name:
            problems.append("%s: value %s is shown as %r, not %r" %
                            (where, number, mapped.get(str(number)), name))


def main(argv):
    if len(argv) != 4:
        sys.stderr.write("usage: check_dashboard.py DASHBOARD.json SNMP.yml MODULE\n")
        return 2
    try:
        with open(argv[1], encoding="utf-8") as f:
            dashboard = json.load(f)
        with open(argv[2], encoding="utf-8") as f:
            config = yaml.safe_load(f)
        module = config[argv[3]]
        series = series_of(module)
    except (OSError, ValueError, yaml.YAMLError, KeyError, TypeError) as error:
        sys.stderr.write("check_dashboard: %s does not read: %s\n" % (argv[1:], error))
        return 2
    if not isinstance(dashboard, dict) or not series:
        sys.stderr.write("check_dashboard: no dashboard or no series\n")
        return 2
    problems = []
    queries = 0
    for panel in panels_of(dashboard):
        where = "panel %r" % panel.get("title")
        for target in panel.get("targets") or []:
            if "expr" in target:
                queries += 1
                check_expr(target["expr"], series, where, problems)
        check_mappings(panel, series, where, problems)
    for variable in (dashboard.get("templating") or {}).get("list") or []:
        if variable.get("type") != "query":
            continue
        query = variable.get("query")
        if isinstance(query, dict):
            query = query.get("query", "")
        where = "variable %r" % variable.get("name")
        expr, label = label_values_query(query or "")
        queries += 1
        named = check_expr(expr, series, where, problems)
        if label and named and label not in series[named[0]][0]:
            problems.append("%s: %s has no label %s" % (where, named[0], label))
    if queries == 0:
        problems.append("the dashboard has no query")
    for problem in problems:
        print(problem)
    if problems:
        return 1
    print("ok: %d queries name only series of the module %s" % (queries, argv[3]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
