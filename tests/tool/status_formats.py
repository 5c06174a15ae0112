#!/usr/bin/env python3
"""What `kvrctl status` prints for programs, held to docs/json.md and to a reader of OpenMetrics.
Arguments: kvrctl, kvrhost, docs/json.md."""
import json
import re
import subprocess
import sys
import tempfile

import jsonschema
from prometheus_client.openmetrics.parser import text_string_to_metric_families

KVRCTL, KVRHOST, PAGE = sys.argv[1:4]
SCHEMA = json.loads(re.search(r"```json\n(.*?)```", open(PAGE).read(), re.S).group(1))


def look(folder: str, commands: list[str]) -> dict[str, dict]:
    for command in commands:
        program, *words = command.split()
        words = [KVRHOST, *words, folder] if program == "kvrhost" else [KVRCTL, "--machine", folder, *words]
        subprocess.run(words, check=True, stdout=subprocess.DEVNULL)
    ctl = [KVRCTL, "--machine", folder]
    document = json.loads(subprocess.run([*ctl, "status", "--json"], capture_output=True).stdout)
    line = subprocess.run([*ctl, "watch", "--count", "1", "--json"], capture_output=True, check=True).stdout
    for each in (document, json.loads(line)):
        jsonschema.validate(each, SCHEMA)
    metrics = subprocess.run([*ctl, "status", "--openmetrics"], capture_output=True, check=True, text=True).stdout
    families = {family.name: family for family in text_string_to_metric_families(metrics)}
    check = subprocess.run([*ctl, "status", "--check"], capture_output=True).returncode
    assert document["asConfigured"] == (check == 0) == bool(families["kvr_as_configured"].samples[0].value)
    return {volume["name"].rpartition("\\")[2]: volume for volume in document["volumes"]}


def main() -> None:
    jsonschema.Draft7Validator.check_schema(SCHEMA)
    with tempfile.TemporaryDirectory() as scratch:
        pc = f"{scratch}/pc"
        subprocess.run([KVRHOST, "create", pc, "--size", "256M", "--volumes", "2"], check=True, stdout=subprocess.DEVNULL)
        subprocess.run([KVRHOST, "serve", pc, "--background"], check=True, stdout=subprocess.DEVNULL)
        try:
            before = look(pc, [])
            assert before["HarddiskVolume1"]["swap"]["status"] == "none" and before["HarddiskVolume1"]["asConfigured"]
            ordered = look(pc, ["kvrctl swap make 1 16M", "kvrctl enable", "kvrctl protect 1 --until 2090-01-01T00:00",
                                "kvrctl merge 1 --anyway", "kvrctl removable hide"])
            volume = ordered["HarddiskVolume1"]
            assert not volume["asConfigured"] and volume["nextBoot"]["changes"] == "merged", volume
            assert volume["nextBoot"]["until"].startswith("2090-01-01T00:00:00"), volume
            after = look(pc, ["kvrhost reboot"])
            assert after["HarddiskVolume1"]["protected"], after
        finally:
            subprocess.run([KVRHOST, "stop", pc], check=True)


main()
