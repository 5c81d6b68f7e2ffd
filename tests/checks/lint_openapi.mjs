// Shows the description of the daemon's interface to a linter, which is installed with the tools of the page.
//
// Usage: node lint_openapi.mjs ROOT

import { createRequire } from "node:module";
import { join, resolve } from "node:path";

const cannotRun = 77;
const root = resolve(process.argv[2]);

let linter;
try {
    linter = createRequire(join(root, "host/page/package.json"))("@redocly/openapi-core");
} catch (error) {
    if (error.code !== "MODULE_NOT_FOUND") {
        throw error;
    }
    console.log("cannot run here: the page's tools are not installed; ./qx build installs them");
    process.exit(cannotRun);
}
const config = await linter.createConfig({ extends: ["recommended-strict"] });
const problems = await linter.lint({ ref: join(root, "host/api/openapi.yaml"), config });
for (const problem of problems) {
    console.log(`${problem.location[0]?.pointer ?? ""}: ${problem.message} (${problem.ruleId})`);
}
console.log(`${problems.length} problems`);
process.exit(problems.length === 0 ? 0 : 1);
