import { type ITheme, Terminal } from "@xterm/xterm";
import "@xterm/xterm/css/xterm.css";
import { columnsOf } from "./width";

/** Sixteen colours for each background, chosen so that text in each can be read on it. */
const dark: ITheme = {
    background: "#14171c",
    foreground: "#d6dae0",
    selectionBackground: "#31507a",
    selectionInactiveBackground: "#31507a",
    black: "#14171c",
    red: "#ff7b72",
    green: "#6cc374",
    yellow: "#d9a634",
    blue: "#74b0ff",
    magenta: "#d79bf0",
    cyan: "#4fc3cf",
    white: "#d6dae0",
    brightBlack: "#929ba8",
    brightRed: "#ffa198",
    brightGreen: "#8fdc96",
    brightYellow: "#f0c75e",
    brightBlue: "#a5ceff",
    brightMagenta: "#e9c2fa",
    brightCyan: "#84dfe8",
    brightWhite: "#ffffff",
};
const light: ITheme = {
    background: "#ffffff",
    foreground: "#1d232b",
    selectionBackground: "#b9d5f7",
    selectionInactiveBackground: "#b9d5f7",
    black: "#000000",
    red: "#b3261e",
    green: "#1f6f2d",
    yellow: "#f2c230",
    blue: "#1a56b0",
    magenta: "#8a2fa0",
    cyan: "#7fd4de",
    white: "#5c6570",
    brightBlack: "#5c6570",
    brightRed: "#c4302b",
    brightGreen: "#25773a",
    brightYellow: "#7d5800",
    brightBlue: "#2463c2",
    brightMagenta: "#993db0",
    brightCyan: "#0e6f7a",
    brightWhite: "#1d232b",
};

const darkness = matchMedia("(prefers-color-scheme: dark)");

/** Shows rows in a terminal emulator: nothing but what can be seen, and nothing that is typed. */
export class LogTerminal {
    private readonly terminal: Terminal;
    private readonly follow = () => {
        this.terminal.options.theme = darkness.matches ? dark : light;
    };

    constructor(
        private readonly room: HTMLElement,
        fontSize: number,
    ) {
        this.terminal = new Terminal({
            allowProposedApi: true,
            scrollback: 0,
            disableStdin: true,
            cursorInactiveStyle: "none",
            cursorBlink: false,
            fontFamily:
                'ui-monospace, "SF Mono", "Cascadia Mono", Consolas, "DejaVu Sans Mono", "Liberation Mono", monospace',
            fontSize,
            lineHeight: 1.25,
            minimumContrastRatio: 4.5,
            theme: darkness.matches ? dark : light,
            linkHandler: null,
            screenReaderMode: false,
        });
        this.terminal.unicode.register({
            version: "qx",
            wcwidth: columnsOf,
            charProperties(code, before) {
                // bits: 0 joins the character before, 1 and 2 its columns
                const columns = columnsOf(code);
                const columnsBefore = (before >> 1) & 3;
                const joins = columns === 0 && columnsBefore > 0;
                return ((joins ? columnsBefore : columns) << 1) | (joins ? 1 : 0);
            },
        });
        this.terminal.unicode.activeVersion = "qx";
        this.terminal.open(room);
        // no cursor, and a row that is too long ends at the right edge
        this.terminal.write("\x1b[?25l\x1b[?7l");
        this.terminal.attachCustomKeyEventHandler(() => false);
        this.terminal.attachCustomWheelEventHandler(() => false);
        const area = this.terminal.textarea;
        if (area) {
            area.tabIndex = -1;
            area.readOnly = true;
            area.setAttribute("aria-hidden", "true");
        }
        darkness.addEventListener("change", this.follow);
    }

    /** Called with whether there is a selection whenever that changes. */
    onSelection(listener: (exists: boolean) => void): void {
        this.terminal.onSelectionChange(() => listener(this.terminal.hasSelection()));
    }

    get selection(): string {
        return this.terminal.getSelection();
    }

    clearSelection(): void {
        this.terminal.clearSelection();
    }

    set fontSize(size: number) {
        this.terminal.options.fontSize = size;
    }

    /** Size of a character in pixels, once the terminal knows it. */
    get cell(): { width: number; height: number } {
        const screen = this.room.querySelector<HTMLElement>(".xterm-screen");
        const width = screen ? Number.parseFloat(screen.style.width) / this.terminal.cols : 0;
        const height = screen ? Number.parseFloat(screen.style.height) / this.terminal.rows : 0;
        return { width: width > 0 ? width : 8, height: height > 0 ? height : 16 };
    }

    get columns(): number {
        return this.terminal.cols;
    }

    get rows(): number {
        return this.terminal.rows;
    }

    resize(columns: number, rows: number): void {
        if (columns !== this.terminal.cols || rows !== this.terminal.rows) {
            this.terminal.resize(columns, rows);
        }
    }

    /** Shows these rows; what is below them is empty. */
    show(rows: readonly string[]): void {
        let text = "";
        for (let row = 0; row < this.terminal.rows; row++) {
            text += `\x1b[${row + 1};1H\x1b[0m${rows[row] ?? ""}\x1b[0m\x1b[K`;
        }
        this.terminal.write(text);
    }

    dispose(): void {
        darkness.removeEventListener("change", this.follow);
        this.terminal.dispose();
    }
}
