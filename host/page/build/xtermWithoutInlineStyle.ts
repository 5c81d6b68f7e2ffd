import { fileURLToPath } from "node:url";
import type { Plugin } from "vite";

const library = /@xterm[\\/]xterm[\\/]lib[\\/]xterm\.mjs/;
const sheet = fileURLToPath(new URL("../src/log/constructedSheet.ts", import.meta.url));

/**
 * The daemon's Content-Security-Policy forbids style elements and style attributes. xterm makes both at run time: three
 * style elements with its colours and sizes, and a style attribute for colours outside the palette. What it wants to
 * say is allowed in other words, as constructed style sheets and through the CSSOM, so the build says it so.
 *
 * The build fails when another version of xterm has other places than those known here.
 */
export function xtermWithoutInlineStyle(): Plugin {
    return {
        name: "xterm-without-inline-style",
        enforce: "pre",
        transform(code, id) {
            if (!library.test(id)) {
                return null;
            }
            let elements = 0;
            let attributes = 0;
            const changed = code
                .replace(/[\w$.]+\.createElement\("style"\)/g, () => {
                    elements++;
                    return "qxStyleElement()";
                })
                .replace(
                    /([\w$]+)\.setAttribute\("style",`\$\{\1\.getAttribute\("style"\)\|\|""\}\$\{([\w$]+)\};`\)/g,
                    (_, element, style) => {
                        attributes++;
                        return `${element}.style.cssText+=${style}+";"`;
                    },
                );
            if (elements !== 3 || attributes !== 1 || /setAttribute\("style"/.test(changed)) {
                throw new Error(
                    `xterm makes ${elements} style elements and ${attributes} style attributes; look at them again`,
                );
            }
            return {
                code: `import{styleElement as qxStyleElement}from${JSON.stringify(sheet)};${changed}`,
                map: null,
            };
        },
    };
}
