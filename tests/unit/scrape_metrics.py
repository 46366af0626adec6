"""usage: scrape_metrics.py URL EXPECTED

Reads a hub's /metrics with the Prometheus client library's parser and checks the format rules
below. EXPECTED maps a sample (name{label="value",...}, labels sorted) to its number or to [least,
most]; a bare name stands for the sum of its labelled samples. Prints each problem and exits 1.
"""
import json
import math
import sys
import urllib.request

from prometheus_client.parser import text_string_to_metric_families


def problems(url, expected):
    with urllib.request.urlopen(url, timeout=5) as reply:
        content_type = reply.headers.get("Content-Type", "")
        text = reply.read().decode("utf-8")
    if not content_type.startswith("text/plain") or "version=0.0.4" not in content_type:
        yield f"content type {content_type!r}"
    samples, sums = {}, {}
    for family in text_string_to_metric_families(text):
        name = family.name
        if not family.documentation or family.type == "untyped":
            yield f"{name}: no HELP or no TYPE"
        if family.type == "counter" and any(not s.name.endswith("_total") for s in family.samples):
            yield f"{name}: a counter not named _total"
        if family.type == "histogram":
            buckets = [(float(s.labels["le"]), s.value) for s in family.samples
                       if s.name == name + "_bucket"]
            counts = [s.value for s in family.samples if s.name == name + "_count"]
            bounds, values = [le for le, _ in buckets], [value for _, value in buckets]
            if not buckets or bounds != sorted(bounds) or not math.isinf(bounds[-1]):
                yield f"{name}: le bounds {bounds}"
            if values != sorted(values):
                yield f"{name}: buckets not cumulative: {values}"
            if len(counts) != 1 or (buckets and counts[0] != values[-1]):
                yield f"{name}: _count {counts} against +Inf bucket {values[-1:]}"
        for s in family.samples:
            labels = ",".join(f'{k}="{v}"' for k, v in sorted(s.labels.items()))
            samples[s.name + ("{" + labels + "}" if labels else "")] = s.value
            sums[s.name] = sums.get(s.name, 0) + s.value
    for key, want in expected.items():
        got = samples.get(key, sums.get(key))
        low, high = want if isinstance(want, list) else (want, want)
        if got is None or not low <= got <= high:
            yield f"{key} is {got}, expected {want}"


if __name__ == "__main__":
    found = list(problems(sys.argv[1], json.loads(sys.argv[2])))
    print("\n".join(found), end="\n" if found else "")
    sys.exit(1 if found else 0)
