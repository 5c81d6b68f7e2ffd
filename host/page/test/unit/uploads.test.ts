import { describe, expect, it } from "vitest";
import { Uploads } from "../../src/uploads";

const file = (name: string) => new File(["12345"], name);

describe("uploads", () => {
    it("are told while they go on, and can be cancelled", async () => {
        const uploads = new Uploads();
        const seen: (string | null)[] = [];
        const leave = uploads.watch(() => {
            const going = uploads.of("image");
            seen.push(going && `${going.name} ${going.sent}/${going.total}`);
        });
        let progress: (sent: number, total: number) => void = () => {};
        const sent = uploads.run("image", file("a.tar"), (onProgress, signal) => {
            progress = onProgress;
            onProgress(2, 6);
            return new Promise((_, reject) => {
                signal.addEventListener("abort", () => reject(new Error("Cancelled.")));
            });
        });
        expect(uploads.areGoing).toBe(true);
        uploads.of("image")?.cancel();
        await expect(sent).rejects.toThrow("Cancelled.");
        // too late
        progress(6, 6);
        expect(seen).toEqual(["a.tar 0/5", "a.tar 2/6", null]);
        expect(uploads.areGoing).toBe(false);
        leave();
        await uploads.run("image", file("b.tar"), async () => "done");
        expect(seen).toHaveLength(3);
    });

    it("of one kind come one after the other", async () => {
        const uploads = new Uploads();
        let finish: (said: string) => void = () => {};
        const first = uploads.run("image", file("a"), () => new Promise<string>((done) => (finish = done)));
        let again = 0;
        const send = async () => `sent ${++again}`;
        expect(await uploads.run("image", file("a"), send)).toBeNull();
        expect(await uploads.run("plugin", file("p"), send)).toBe("sent 1");
        expect(uploads.of("image")?.name).toBe("a");
        finish("done");
        expect(await first).toBe("done");
        expect(await uploads.run("image", file("a"), send)).toBe("sent 2");
    });
});
