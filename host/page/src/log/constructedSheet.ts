/**
 * Stands in for a style element where the Content-Security-Policy forbids those: its text goes into a constructed style
 * sheet, which is allowed.
 */
export function styleElement(): HTMLElement {
    const sheet = new CSSStyleSheet();
    const stand = document.createElement("span");
    stand.hidden = true;
    let text = "";
    Object.defineProperty(stand, "textContent", {
        get: () => text,
        set: (value: string) => {
            text = value;
            sheet.replaceSync(value);
        },
    });
    Object.defineProperty(stand, "remove", {
        value: () => {
            document.adoptedStyleSheets = document.adoptedStyleSheets.filter((other) => other !== sheet);
            Element.prototype.remove.call(stand);
        },
    });
    document.adoptedStyleSheets = [...document.adoptedStyleSheets, sheet];
    return stand;
}
