#pragma once

/// The description of the interface, in YAML.
extern const char* const OpenapiDescription;
