"""Scrapes a hub's /metrics and reads it with the Prometheus client library's own parser.

usage: scrape_metrics.py URL EXPECTED

EXPECTED is a JSON object mapping a sample, written name or name{label="value",...} with the
labels in alphabetical order, to the number it must have, or to [least, most]; a name without
labels that has no sample of its own stands for the sum of its labelled samples. Also checks what
every scrape must satisfy: the 0.0.4 content type, HELP and TYPE for every family, counters
named ..._total, histograms with ascending le bounds, cumulative buckets ending in +Inf, and a
_count equal to the +Inf bucket. Prints each problem found and exits 1, or exits 0.
"""
import json
import math
import sys
import urllib.request

from prometheus_client.parser import text_string_to_metric_families


def histogram_problems(family):
    buckets = [(float(s.labels["le"]), s.value) for s in family.samples
               if s.name == family.name + "_bucket"]
    counts = [s.value for s in family.samples if s.name == family.name + "_count"]
    bounds = [le for le, _ in buckets]
    values = [value for _, value in buckets]
    if not buckets or bounds != sorted(bounds) or not math.isinf(bounds[-1]):
        yield f"{family.name}: le bounds {bounds}"
    if values != sorted(values):
        yield f"{family.name}: buckets not cumulative: {values}"
    if len(counts) != 1 or (buckets and counts[0] != values[-1]):
        yield f"{family.name}: _count {counts} against +Inf bucket {values[-1:]}"


def main(url, expected):
    with urllib.request.urlopen(url, timeout=5) as reply:
        content_type = reply.headers.get("Content-Type", "")
        text = reply.read().decode("utf-8")
    problems = []
    if not content_type.startswith("text/plain") or "version=0.0.4" not in content_type:
        problems.append(f"content type {content_type!r}")
    samples, sums = {}, {}
    for family in text_string_to_metric_families(text):
        if not family.documentation or family.type == "untyped":
            problems.append(f"{family.name}: no HELP or no TYPE")
        if family.type == "counter" and any(not s.name.endswith("_total") for s in family.samples):
            problems.append(f"{family.name}: a counter not named _total")
        if family.type == "histogram":
            problems.extend(histogram_problems(family))
        for s in family.samples:
            labels = ",".join(f'{k}="{v}"' for k, v in sorted(s.labels.items()))
            samples[s.name + ("{" + labels + "}" if labels else "")] = s.value
            sums[s.name] = sums.get(s.name, 0) + s.value
    for key, want in expected.items():
        got = samples.get(key, sums.get(key))
        low, high = want if isinstance(want, list) else (want, want)
        if got is None or not low <= got <= high:
            problems.append(f"{key} is {got}, expected {want}")
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], json.loads(sys.argv[2])))
