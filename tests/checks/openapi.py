#!/usr/bin/env python3
"""Holds the description of the daemon's interface together, with itself and with what the daemon registers.

Usage: openapi.py ROOT
"""

import pathlib
import re
import sys

import jsonschema
import yaml

sys.dont_write_bytecode = True  # nothing is left in the sources
from interface import Description, Operation, closed, example_of, faults  # noqa: E402

ROUTE = re.compile(r'router\.(?:Add\(\s*Verb::(\w+)|AddStream\()\s*,?\s*"([^"]+)"\s*,\s*Right::(\w+)')
CALL = re.compile(r"router\.Add(?:Stream)?\(")
PLACE = re.compile(r"\{(\w+)\}")
TEXTS = ("application/json", "application/yaml")
KEYWORDS = set(
    "type properties required additionalProperties items enum const oneOf pattern minimum maximum maxLength default "
    "format description".split()
)


def schemas_in(value, where=""):
    """Gives (where, schema) of everything below a key "schema" or in the components."""
    if isinstance(value, dict):
        for key, item in value.items():
            if key == "schema" or where.endswith("/components/schemas"):
                yield f"{where}/{key}", item
            elif not key.startswith("example"):
                yield from schemas_in(item, f"{where}/{key}")
    elif isinstance(value, list):
        for number, item in enumerate(value):
            yield from schemas_in(item, f"{where}/{number}")


def unknown_keywords(schema):
    """Gives keywords that are none; commas in plain texts make such."""
    if isinstance(schema, dict):
        yield from schema.keys() - KEYWORDS
        for member in schema.get("properties", {}).values():
            yield from unknown_keywords(member)
        for part in (schema.get("items"), *schema.get("oneOf", [])):
            yield from unknown_keywords(part)


def check_schemas(document: dict):
    for where, schema in schemas_in(document):
        try:
            jsonschema.Draft202012Validator.check_schema(schema)
        except jsonschema.SchemaError as error:
            yield f"{where} is no schema: {error.message}"
            continue
        for word in unknown_keywords(schema):
            yield f"{where} has an unknown keyword '{word}'"


def check_components(description: Description):
    components = description.raw["components"]
    for kind, members in components.items():
        for name in members:
            if kind != "securitySchemes" and f"#/components/{kind}/{name}" not in description.referred:
                yield f"nothing uses the component {kind}/{name}"
    demanded = {name for rule in description.raw["security"] for name in rule}
    for name in demanded ^ set(components["securitySchemes"]):
        yield f"the security scheme '{name}' is not both declared and used"


def check_names(description: Description):
    tags = {tag["name"] for tag in description.raw["tags"]}
    used = {tag for operation in description.operations for tag in operation.content.get("tags", [])}
    ids = [operation.id for operation in description.operations]
    for name in sorted({name for name in ids if ids.count(name) > 1}):
        yield f"the operationId {name} is there twice"
    for tag in sorted(tags - used):
        yield f"no operation has the tag '{tag}'"
    for operation in description.operations:
        if "operationId" not in operation.content:
            yield f"{operation} has no operationId"
        if not operation.content.get("summary"):
            yield f"{operation} has no summary"
        own = operation.content.get("tags", [])
        if len(own) != 1 or not set(own) <= tags:
            yield f"{operation} has not one tag that is declared"


def check_parameters(operation: Operation):
    places = PLACE.findall(operation.path)
    declared = [parameter["name"] for parameter in operation.placed("path")]
    if sorted(places) != sorted(declared):
        yield f"{operation}: its path has the places {places}, declared are {declared}"
    for parameter in operation.parameters:
        value = example_of(parameter)
        if value is None:
            yield f"{operation}: the parameter {parameter['name']} has no example"
        else:
            for fault in faults(value, parameter["schema"]):
                yield f"{operation}: the example of the parameter {parameter['name']}: {fault}"


def check_content(what: str, content: dict):
    for media, part in content.items():
        if media in TEXTS or media.endswith("+json"):
            if "example" not in part:
                yield f"{what} has no example"
                continue
            for fault in faults(part["example"], closed(part["schema"])):
                yield f"the example of {what}: {fault}"
        elif not any(example.get("externalValue") for example in part.get("examples", {}).values()):
            yield f"{what} does not say where an example is"


def check_responses(operation: Operation, problem: dict):
    if not any(status.startswith("2") or status == "101" for status in operation.responses):
        yield f"{operation} has no successful response"
    for status in ("default", "403"):
        if status not in operation.responses:
            yield f"{operation} has no response '{status}'"
    for status, response in operation.responses.items():
        content = response.get("content", {})
        if status[0] in "45d" and content != {"application/problem+json": {"schema": problem}}:
            yield f"{operation}: {status} is no problem"
        if status.startswith("2") and "application/json" in content:
            yield from check_content(f"{operation}: {status}", {"application/json": content["application/json"]})
        if status == "101" and [part.keys() for part in content.values()] != [{"schema"}]:
            yield f"{operation}: {status} does not say what the messages are"


def check_operations(description: Description):
    problem = description.document["components"]["schemas"]["Problem"]
    for operation in description.operations:
        yield from check_parameters(operation)
        yield from check_responses(operation, problem)
        if operation.body is not None:
            yield from check_content(f"{operation}'s body", operation.body["content"])
        is_open = operation.content.get("security", description.raw["security"]) == []
        if not is_open and "401" not in operation.responses:
            yield f"{operation} wants a token and has no response '401'"


def registered(sources: pathlib.Path):
    """Gives (kind, path, right) of every route that the daemon registers; the kind is the method or "stream"."""
    for source in sorted(sources.glob("*.cpp")):
        text = source.read_text()
        routes = ROUTE.findall(text)
        if len(routes) != len(CALL.findall(text)):
            raise ValueError(f"{source.name} registers routes in a way that is not understood here")
        for verb, path, right in routes:
            yield (verb.rstrip("_").upper() or "stream", path, right)


def described(description: Description):
    for operation in description.operations:
        kinds = set()
        if "101" in operation.responses:
            kinds.add("stream")
        if operation.responses.keys() - {"101"} and any(status.startswith("2") for status in operation.responses):
            kinds.add(operation.method)
        is_open = operation.content.get("security", description.raw["security"]) == []
        yield from ((kind, operation.path, is_open) for kind in kinds)


def check_routes(description: Description, sources: pathlib.Path):
    known = {(kind, path): right == "None" for kind, path, right in registered(sources)}
    told = {(kind, path): is_open for kind, path, is_open in described(description)}
    for kind, path in sorted(known.keys() - told.keys()):
        yield f"the daemon knows {kind} {path}, the description does not"
    for kind, path in sorted(told.keys() - known.keys()):
        yield f"the description knows {kind} {path}, the daemon does not"
    for kind, path in sorted(known.keys() & told.keys()):
        if known[kind, path] != told[kind, path]:
            yield f"{kind} {path}: daemon and description differ on whether it wants a token"


def main() -> int:
    root = pathlib.Path(sys.argv[1])
    try:
        description = Description(root / "host/api/openapi.yaml")
        problems = [
            *check_schemas(description.document),
            *check_components(description),
            *check_names(description),
            *check_operations(description),
            *check_routes(description, root / "host/api"),
        ]
    except (ValueError, yaml.YAMLError) as error:
        problems, description = [str(error)], None
    print("\n".join(problems))
    count = len(description.operations) if description else 0
    print(f"{count} operations, {len(problems)} problems")
    return 1 if problems or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
