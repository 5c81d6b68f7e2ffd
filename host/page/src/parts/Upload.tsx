import { useRef, useState } from "preact/hooks";
import { words } from "../api/client";
import { useShared } from "../context";
import { bytes } from "../format";
import { lookOnly } from "./basics";

interface Properties {
    label: string;
    accept: string;
    help: string;
    /** sends the file; what it says in the end is told to the user. Null when the user did not want to. */
    send: (
        file: File,
        onProgress: (sent: number, total: number) => void,
        signal: AbortSignal,
    ) => Promise<string | null>;
}

/** Chooses a file and sends it, with progress and a way out. */
export function Upload({ label, accept, help, send }: Properties) {
    const { mayAct, tell } = useShared();
    const [going, setGoing] = useState<{ name: string; sent: number; total: number } | null>(null);
    const stop = useRef<AbortController | null>(null);
    const field = useRef<HTMLInputElement>(null);

    const start = async (file: File) => {
        const mine = new AbortController();
        stop.current = mine;
        setGoing({ name: file.name, sent: 0, total: file.size });
        try {
            const said = await send(
                file,
                (sent, total) => setGoing({ name: file.name, sent, total }),
                mine.signal,
            );
            if (said) {
                tell(said);
            }
        } catch (error) {
            tell(`${file.name}: ${words(error)}`, "failed");
        } finally {
            setGoing(null);
            if (field.current) {
                field.current.value = "";
            }
        }
    };

    const percent = going && going.total > 0 ? Math.floor((going.sent / going.total) * 100) : 0;
    return (
        <div class="upload">
            <label
                class={mayAct && !going ? "button" : "button off"}
                {...(mayAct ? {} : { title: lookOnly })}
            >
                {label}
                <input
                    ref={field}
                    class="unseen"
                    type="file"
                    accept={accept}
                    disabled={!mayAct || going !== null}
                    onChange={(event) => {
                        const file = event.currentTarget.files?.[0];
                        if (file) {
                            void start(file);
                        }
                    }}
                />
            </label>
            {going ? (
                <>
                    <progress
                        aria-label={`Upload of ${going.name}`}
                        max={Math.max(1, going.total)}
                        value={going.sent}
                    />
                    <span class="aside">
                        {going.name}:{" "}
                        {percent < 100
                            ? `${percent} % of ${bytes(going.total)}`
                            : "sent; the board works on it …"}
                    </span>
                    <button type="button" onClick={() => stop.current?.abort()}>
                        Cancel
                    </button>
                </>
            ) : (
                <span class="help">{help}</span>
            )}
        </div>
    );
}
