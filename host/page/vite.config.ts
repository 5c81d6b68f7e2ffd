import { defineConfig } from "vite";
import { xtermWithoutInlineStyle } from "./build/xtermWithoutInlineStyle";

const daemon = process.env.QX_PAGE_URL ?? "http://127.0.0.1:8088";

export default defineConfig({
    plugins: [xtermWithoutInlineStyle()],
    worker: { format: "es" },
    optimizeDeps: { exclude: ["@xterm/xterm"] },
    server: { proxy: { "/api": { target: daemon, ws: true } } },
    build: {
        target: "es2022",
        assetsInlineLimit: 0,
        modulePreload: { polyfill: false },
        reportCompressedSize: true,
    },
});
