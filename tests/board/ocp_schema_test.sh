#!/usr/bin/env bash
# The board check's OCP lines against the shapes of the OCP Test and Validation output
# schema 2.0 (the artifacts the tool writes, written out below as a JSON schema), on the
# simulated board as shipped (result PASS); the failing shapes are covered by the unit test.
set -euo pipefail
quarn=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$quarn" --board virtual --output-format=ocp board check --quick >"$work/pass.jsonl" || {
  echo "board check failed on the shipped board"; cat "$work/pass.jsonl"; exit 1; }
/usr/bin/python3 - "$work/pass.jsonl" <<'PY'
import json, sys
import jsonschema

status = {"enum": ["COMPLETE", "ERROR", "SKIP"]}
validator = {"type": "object", "required": ["type", "value"], "additionalProperties": False,
             "properties": {"name": {"type": "string"}, "value": {"type": ["string", "boolean", "number"]},
                            "type": {"enum": ["EQUAL", "NOT_EQUAL", "LESS_THAN", "LESS_THAN_OR_EQUAL", "GREATER_THAN",
                                              "GREATER_THAN_OR_EQUAL", "REGEX_MATCH", "REGEX_NO_MATCH", "IN_SET", "NOT_IN_SET"]}}}
hw = {"type": "object", "required": ["name", "hardwareInfoId"],
      "properties": {k: {"type": "string"} for k in ["name", "hardwareInfoId", "partType", "location", "serialNumber"]}}
sw = {"type": "object", "required": ["name", "softwareInfoId"],
      "properties": {"name": {"type": "string"}, "softwareInfoId": {"type": "string"}, "version": {"type": "string"},
                     "softwareType": {"enum": ["UNSPECIFIED", "FIRMWARE", "SYSTEM", "APPLICATION"]}}}
run_start = {"type": "object", "required": ["name", "version", "commandLine", "parameters", "dutInfo"], "additionalProperties": False,
             "properties": {"name": {"type": "string"}, "version": {"type": "string"}, "commandLine": {"type": "string"},
                            "parameters": {"type": "object"}, "metadata": {"type": "object"},
                            "dutInfo": {"type": "object", "required": ["id"],
                                        "properties": {"id": {"type": "string"}, "softwareInfos": {"type": "array", "items": sw},
                                                       "hardwareInfos": {"type": "array", "items": hw}}}}}
run_end = {"type": "object", "required": ["status", "result"], "additionalProperties": False,
           "properties": {"status": status, "result": {"enum": ["NOT_APPLICABLE", "PASS", "FAIL"]}}}
measurement = {"type": "object", "required": ["name", "value"],
               "properties": {"name": {"type": "string"}, "value": {"type": ["string", "boolean", "number"]}, "unit": {"type": "string"},
                              "validators": {"type": "array", "items": validator}, "hardwareInfoId": {"type": "string"}}}
diagnosis = {"type": "object", "required": ["verdict", "type"], "additionalProperties": False,
             "properties": {"verdict": {"type": "string"}, "type": {"enum": ["PASS", "FAIL", "UNKNOWN"]},
                            "message": {"type": "string"}, "hardwareInfoId": {"type": "string"}}}
def one(key, schema):
    return {"required": [key], "properties": {key: schema}}
step = {"type": "object", "required": ["testStepId"], "properties": {"testStepId": {"type": "string"}},
        "oneOf": [one("testStepStart", {"type": "object", "required": ["name"], "additionalProperties": False,
                                        "properties": {"name": {"type": "string"}}}),
                  one("testStepEnd", {"type": "object", "required": ["status"], "properties": {"status": status}}),
                  one("measurement", measurement), one("diagnosis", diagnosis)]}
root = {"type": "object", "required": ["sequenceNumber", "timestamp"],
        "properties": {"sequenceNumber": {"type": "integer", "minimum": 0, "maximum": 2147483647},
                       "timestamp": {"type": "string", "pattern": r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z$"}},
        "oneOf": [one("schemaVersion", {"type": "object", "required": ["major", "minor"],
                                        "properties": {"major": {"const": 2}, "minor": {"const": 0}}}),
                  one("testRunArtifact", {"type": "object", "oneOf": [one("testRunStart", run_start), one("testRunEnd", run_end)]}),
                  one("testStepArtifact", step)]}

lines = [json.loads(l) for l in open(sys.argv[1]) if l.strip()]
for i, obj in enumerate(lines):
    jsonschema.validate(obj, root)
    assert obj["sequenceNumber"] == i, ("sequence", i, obj)
assert "schemaVersion" in lines[0]
assert "testRunStart" in lines[1]["testRunArtifact"]
assert lines[-1]["testRunArtifact"]["testRunEnd"] == {"status": "COMPLETE", "result": "PASS"}
# Steps open, carry one diagnosis, and close in order.
open_step = None
steps = 0
for obj in lines[2:-1]:
    s = obj["testStepArtifact"]
    if "testStepStart" in s:
        assert open_step is None
        open_step, diagnoses = s["testStepId"], 0
        steps += 1
    else:
        assert s["testStepId"] == open_step, obj
        if "diagnosis" in s:
            diagnoses += 1
            assert s["diagnosis"]["type"] == "PASS", s
        if "testStepEnd" in s:
            assert diagnoses == 1
            open_step = None
assert open_step is None and steps >= 10, steps
print("ocp: %d lines, %d steps valid" % (len(lines), steps))
PY
