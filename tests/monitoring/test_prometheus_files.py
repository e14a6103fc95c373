"""The files of monitoring/prometheus, without a program that reads them: their structure, and that each name that one
of them uses is made by another."""
from __future__ import annotations

import re

import yaml
from prometheus_files import (BEFORE, FOLDER, FOREIGN, RULES, SINCE, TABLES, alerts, groups, modules, names_in,
                              panel_queries, rules, scraped_names, states)

# The exporter accepts no other keys.
MODULE_KEYS = {"walk", "get", "metrics", "max_repetitions", "retries", "timeout"}
METRIC_KEYS = {"name", "oid", "type", "help", "indexes", "lookups", "regex_extracts", "enum_values"}
TYPES = {"gauge", "DisplayString", "EnumAsInfo", "EnumAsStateSet"}


# The exporter's modules


def test_both_flavours_have_the_same_module():
    before, since = modules()[BEFORE.name], modules()[SINCE.name]
    assert {key: value for key, value in before.items() if key not in ("version", "auth")} == since


def test_access_stands_where_the_version_looks_for_it():
    before, since = yaml.safe_load(BEFORE.read_text()), yaml.safe_load(SINCE.read_text())
    assert list(before) == ["kvsnmp"] and set(before["kvsnmp"]) == MODULE_KEYS | {"version", "auth"}
    assert (before["kvsnmp"]["version"], before["kvsnmp"]["auth"]) == (2, {"community": "public"})
    assert set(since) == {"auths", "modules"} and list(since["modules"]) == ["kvsnmp"]
    assert since["auths"] == {"kvsnmp_v2": {"community": "public", "version": 2}}
    assert set(since["modules"]["kvsnmp"]) == MODULE_KEYS


def test_structure_of_the_metrics():
    metrics = modules()[BEFORE.name]["metrics"]
    for metric in metrics:
        assert set(metric) <= METRIC_KEYS and {"name", "oid", "type", "help"} <= set(metric), metric
        assert metric["type"] in TYPES and re.fullmatch(r"[a-z][a-z0-9_]*", metric["name"]), metric
        assert ("enum_values" in metric) == metric["type"].startswith("EnumAs"), metric
        for index in metric.get("indexes", []):
            assert index == {"labelname": "index", "type": "gauge"}
        for lookup in metric.get("lookups", []):
            assert set(lookup) <= {"labels", "labelname", "oid", "type"} and "labelname" in lookup
        for extracts in metric.get("regex_extracts", {}).values():
            assert all(set(extract) == {"regex", "value"} for extract in extracts)
    for key in ("name", "oid"):
        assert len({metric[key] for metric in metrics}) == len(metrics), f"two metrics of one {key}"


def test_scaling():
    """In the exporter the first matching expression makes the number."""
    for metric, text, number in [
            ("kvsnmp_voltage_value", "24100", 24.1), ("kvsnmp_voltage_value", "0", 0), ("kvsnmp_voltage_value", "7", 0.007),
            ("kvsnmp_voltage_value", "42", 0.042), ("kvsnmp_voltage_value", "999", 0.999),
            ("kvsnmp_voltage_value", "4294967295", 4294967.295), ("kvsnmp_temp_current", "524", 52.4),
            ("kvsnmp_temp_current", "0", 0), ("kvsnmp_temp_current", "9", 0.9)]:
        (extracts,) = next(item for item in modules()[BEFORE.name]["metrics"] if item["name"] == metric)["regex_extracts"].values()
        match, value = next((found, extract["value"]) for extract in extracts if (found := re.search(extract["regex"], text)))
        assert float(match.expand(re.sub(r"\$(\d)", r"\\g<\1>", value))) == number, (metric, text)


# Rules


def test_rules_and_panels_use_what_exists():
    made = scraped_names() | FOREIGN | {rule["record"] for rule in rules() if "record" in rule}
    for query in [*(rule["expr"] for rule in rules()), *panel_queries()]:
        assert names_in(query) and names_in(query) <= made, query
    objects = {rule["labels"]["object"] for rule in rules() if rule.get("record") == "kvsnmp:state"}
    for query in panel_queries():
        assert set(re.findall(r'object=~?"([^"]*)"', query)) <= objects, query


def test_every_table_with_states_or_values_has_its_group():
    names = {group["name"] for group in groups()}
    tables = {re.sub(r"Channel\dTable", "ChannelTables", name) for name in TABLES}
    assert names == {"kvsnmp-device"} | {f"kvsnmp-{table}" for table in tables}


def test_every_state_is_recorded_before_it_is_used():
    """A group evaluates its rules in order; groups run in no order."""
    found = set()
    for group in groups():
        objects = set()
        for rule in group["rules"]:
            if rule.get("record") == "kvsnmp:state":
                objects.add(rule["labels"]["object"])
                found |= names_in(rule["expr"])
                continue
            for pattern in re.findall(r'object=~?"([^"]*)"', rule["expr"]):
                assert any(re.fullmatch(pattern, name) for name in objects), (group["name"], pattern)
    assert found == set(states())


def test_words_in_rules_are_words_of_the_mib():
    words = set().union(*states().values())
    for rule in rules():
        for pattern in re.findall(r'state=~?"([^"]*)"', rule["expr"]):
            assert set(pattern.split("|")) <= words, rule


def test_every_alert_says_what_and_what_to_do():
    readme = (FOLDER / "README.md").read_text()
    for name, rule in alerts().items():
        assert re.fullmatch(r"Kvsnmp[A-Za-z]+", name)
        assert rule["labels"]["severity"] in ("critical", "warning", "info")
        assert set(rule["annotations"]) == {"summary", "description"} and "$labels.instance" in rule["annotations"]["summary"]
        row = next(line for line in readme.splitlines() if line.startswith(f"| `{name}`"))
        assert f"| {rule['labels']['severity']} |" in row and f"| {rule['for'].replace('m', ' min')} |" in row, row


def test_names_in_a_query():
    """The reader of queries that other tests use."""
    assert names_in('sum by (up) (kvsnmp:state{object="kvsnmp_x", a="1"} == 1) and on (job) up > 2') == {"kvsnmp:state", "up"}
    assert names_in('kvsnmp_power_live{kvsnmp_power_live="live"} unless max_over_time(kvsnmp_x[1d])') == {
        "kvsnmp_power_live", "kvsnmp_x"}
    assert names_in("kvsnmp_nothing_such") - scraped_names() == {"kvsnmp_nothing_such"}


# Prometheus' own file


def test_scrape_configuration():
    config = yaml.safe_load((FOLDER / "prometheus.yml").read_text())
    (job,) = config["scrape_configs"]
    assert job["job_name"] == "kvsnmp" and job["params"]["module"] == ["kvsnmp"], "the rules ask for up{job=\"kvsnmp\"}"
    assert job["scrape_interval"] == "60s", "a device caches its values for 60 s"
    timeout = int(modules()[BEFORE.name]["timeout"].rstrip("s"))
    assert timeout * (modules()[BEFORE.name]["retries"] + 1) <= int(job["scrape_timeout"].rstrip("s")) <= 60
    assert config["rule_files"] == [f"/etc/prometheus/{RULES.name}"]
