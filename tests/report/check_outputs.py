"""check_outputs.py SCHEMA FILE...: parses what orvreport wrote; JSON Lines by the schema, too."""
import json
import sys
import xml.etree.ElementTree

import jsonschema

with open(sys.argv[1], encoding="utf-8") as schema_file:
    schema = json.load(schema_file)
validator_class = jsonschema.validators.validator_for(schema)
validator_class.check_schema(schema)
validator = validator_class(schema)
for path in sys.argv[2:]:
    if path.endswith(".xml"):
        root = xml.etree.ElementTree.parse(path).getroot()
        print(root.get("tests"), root.get("failures"), root.get("errors"))
        continue
    with open(path, encoding="utf-8") as lines:
        for number, line in enumerate(lines, 1):
            for error in validator.iter_errors(json.loads(line)):
                sys.exit(f"{path}, line {number}: {error.message}")
