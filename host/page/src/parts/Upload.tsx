import { useEffect, useState } from "preact/hooks";
import { words } from "../api/client";
import { useShared } from "../context";
import { bytes } from "../format";
import { lookOnly } from "./basics";

interface Properties {
    /** of uploads of one kind there is one at a time */
    kind: string;
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
export function Upload({ kind, label, accept, help, send }: Properties) {
    const { mayAct, tell, uploads } = useShared();
    const [going, setGoing] = useState(uploads.of(kind));

    useEffect(() => {
        const follow = () => setGoing(uploads.of(kind));
        follow();
        return uploads.watch(follow);
    }, [uploads, kind]);

    const start = async (file: File) => {
        try {
            const said = await uploads.run(kind, file, (onProgress, signal) =>
                send(file, onProgress, signal),
            );
            if (said) {
                tell(said);
            }
        } catch (error) {
            tell(`${file.name}: ${words(error)}`, "failed");
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
                    class="unseen"
                    type="file"
                    accept={accept}
                    disabled={!mayAct || going !== null}
                    onChange={(event) => {
                        const file = event.currentTarget.files?.[0];
                        if (file) {
                            // so that the same file can be chosen again
                            event.currentTarget.value = "";
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
                    <button type="button" onClick={() => going.cancel()}>
                        Cancel
                    </button>
                </>
            ) : (
                <span class="help">{help}</span>
            )}
        </div>
    );
}
