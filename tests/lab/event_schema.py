"""What events look like: packaging/schema/events.schema.json, for every event that a test parses."""

import json
import os

import jsonschema

_PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging", "schema", "events.schema.json")


class Checker:
    def __init__(self):
        with open(_PATH, encoding="utf-8") as file:
            self.schema = json.load(file)
        self.validators = {}
        self.checked = set()

    def validator(self, name):
        """Of one kind of event: the whole schema looks at an event as if it were each of them."""
        if name not in self.validators:
            one = {"$ref": f"#/$defs/event-{name}", "$defs": self.schema["$defs"]}
            self.validators[name] = jsonschema.Draft202012Validator(one)
        return self.validators[name]

    def check(self, event):
        text = json.dumps(event)
        if text in self.checked:
            return
        self.checked.add(text)
        if event.get("event") not in self.schema["properties"]["event"]["enum"]:
            raise AssertionError(f"an event that the schema lacks: {text}")
        errors = [f"{list(error.absolute_path)}: {error.message}"
                  for error in self.validator(event["event"]).iter_errors(event)]
        if errors:
            raise AssertionError(f"not as the schema has it: {text[:500]}\n" + "\n".join(errors))
