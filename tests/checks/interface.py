"""The description of the daemon's interface (host/api/openapi.yaml), for those that hold it to its word."""

import copy
import datetime
import pathlib
import re

import jsonschema
import yaml

METHODS = ("get", "put", "post", "patch", "delete")
TIME = re.compile(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)(\.\d{1,9})?(Z|[+-]\d\d:\d\d)")

formats = jsonschema.FormatChecker(formats=())


@formats.checks("date-time", raises=ValueError)
def is_time(value) -> bool:
    if not isinstance(value, str):
        return True
    match = TIME.fullmatch(value)
    return match is not None and bool(datetime.datetime.fromisoformat(match[1] + match[3].replace("Z", "+00:00")))


class Loader(yaml.SafeLoader):
    """YAML 1.2: times, "yes" and "no" are texts. A key that is there twice is an error."""

    yaml_implicit_resolvers = {}

    def construct_mapping(self, node, deep=False):
        keys = [self.construct_object(key, deep=True) for key, _ in node.value]
        for key in keys:
            if keys.count(key) > 1:
                raise yaml.constructor.ConstructorError(None, None, f"the key '{key}' is there twice", node.start_mark)
        return super().construct_mapping(node, deep)


Loader.add_implicit_resolver("tag:yaml.org,2002:bool", re.compile(r"(?:true|false)$"), list("tf"))
Loader.add_implicit_resolver("tag:yaml.org,2002:int", re.compile(r"[-+]?[0-9]+$"), list("-+0123456789"))
Loader.add_implicit_resolver("tag:yaml.org,2002:float", re.compile(r"[-+]?[0-9]+\.[0-9]*$"), list("-+0123456789"))
Loader.add_implicit_resolver("tag:yaml.org,2002:null", re.compile(r"(?:null|~|)$"), ["n", "~", ""])


class Operation:
    """One request, with every reference resolved."""

    def __init__(self, method: str, path: str, shared: list, content: dict):
        self.method = method.upper()
        self.path = path
        self.id = content.get("operationId", f"{self.method} {path}")
        self.content = content
        self.parameters = shared + content.get("parameters", [])
        self.responses = content.get("responses", {})
        self.body = content.get("requestBody")

    def __str__(self):
        return f"{self.method} {self.path}"

    def placed(self, place: str) -> list:
        return [parameter for parameter in self.parameters if parameter.get("in") == place]


class Description:
    def __init__(self, path):
        self.raw = yaml.load(pathlib.Path(path).read_text(), Loader)
        self.referred = set()
        self.document = self._resolve(self.raw, ())
        self.operations = [
            Operation(method, path, item.get("parameters", []), item[method])
            for path, item in self.document["paths"].items()
            for method in METHODS
            if method in item
        ]

    def _resolve(self, value, inside: tuple):
        if isinstance(value, list):
            return [self._resolve(item, inside) for item in value]
        if not isinstance(value, dict):
            return value
        if isinstance(value.get("$ref"), str):
            return self._resolve(self._target(value["$ref"], inside), (*inside, value["$ref"]))
        return {key: self._resolve(item, inside) for key, item in value.items()}

    def _target(self, reference: str, inside: tuple):
        if reference in inside:
            raise ValueError(f"{reference} refers to itself")
        target = self.raw
        for step in reference.removeprefix("#/").split("/"):
            step = step.replace("~1", "/").replace("~0", "~")
            if not reference.startswith("#/") or not isinstance(target, dict) or step not in target:
                raise ValueError(f"{reference} refers to nothing")
            target = target[step]
        self.referred.add(reference)
        return target


def example_of(parameter: dict):
    """The value that a parameter's description gives, None when it gives none."""
    schema = parameter.get("schema", {})
    for source, key in ((parameter, "example"), (schema, "example"), (schema, "default"), (schema, "const")):
        if key in source:
            return source[key]
    return schema["enum"][0] if "enum" in schema else None


def closed(schema):
    """The schema with every object that lists its members taking no others."""
    schema = copy.deepcopy(schema)
    walk = [schema]
    while walk:
        value = walk.pop()
        if isinstance(value, dict):
            if isinstance(value.get("properties"), dict):
                value.setdefault("additionalProperties", False)
            walk.extend(value.values())
        elif isinstance(value, list):
            walk.extend(value)
    return schema


def faults(value, schema) -> list[str]:
    """What is wrong with a value, by its schema."""
    errors = jsonschema.Draft202012Validator(schema, format_checker=formats).iter_errors(value)
    return [f"{'.'.join(map(str, error.absolute_path)) or 'it'}: {error.message}" for error in errors]
