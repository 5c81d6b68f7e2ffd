import { useCallback, useEffect, useLayoutEffect, useRef, useState } from "preact/hooks";
import { Problem, segment, words } from "../api/client";
import * as types from "../api/types";
import { useShared } from "../context";
import { Act, Loading, State, useActing } from "../parts/basics";
import { addressOf } from "../route";

const longestFile = 1024 * 1024;
const template =
    'services:\n  app:\n    image: localhost/busybox:1\n    command: ["sh", "-c", "while true; do date; sleep 1; done"]\n';
const nameHelp = "Letters, digits, dots, dashes and underscores, ending in .yaml or .yml";

/** Texts that were changed and not saved, kept while the page is open. */
const drafts = new Map<string, string>();

const bytesOf = (text: string) => new TextEncoder().encode(text).length;

export function FileEditor({ name }: { name: string }) {
    const isNew = name === "+new";
    const { api, ask, tell, mayAct } = useShared();
    const [file, setFile] = useState(isNew ? "" : name);
    /** what is on the board, as far as we know; null before it came */
    const [stored, setStored] = useState<string | null>(isNew ? "" : null);
    const [text, setText] = useState(drafts.get(name) ?? (isNew ? template : ""));
    const [problem, setProblem] = useState("");
    const [opinion, setOpinion] = useState<types.ComposeCheck | null>(null);
    const { busy, act } = useActing(useCallback(() => {}, []));
    const area = useRef<HTMLTextAreaElement>(null);

    useEffect(() => {
        if (isNew) {
            return;
        }
        const stop = new AbortController();
        api.text(`/compose-files/${segment(name)}`, { signal: stop.signal }).then(
            (content) => {
                setStored(content);
                setText(drafts.get(name) ?? content);
            },
            (error) => {
                if (!stop.signal.aborted) {
                    setProblem(words(error));
                }
            },
        );
        return () => stop.abort();
    }, [api, name, isNew]);

    const isChanged = stored !== null && text !== stored && !(isNew && text === template);
    // at once: the view may go before other effects are run
    useLayoutEffect(() => {
        if (isChanged) {
            drafts.set(name, text);
        } else if (stored !== null) {
            drafts.delete(name);
        }
        const warn = (event: BeforeUnloadEvent) => event.preventDefault();
        if (isChanged) {
            window.addEventListener("beforeunload", warn);
        }
        return () => window.removeEventListener("beforeunload", warn);
    }, [isChanged, text, name, stored]);

    const nameIsGood = types.fileName.test(file) && /\.ya?ml$/.test(file);
    const isTooLong = bytesOf(text) > longestFile;

    const check = async (): Promise<types.ComposeCheck> => {
        const as = nameIsGood ? `?file=${segment(file)}` : "";
        const answer = await api.send(`/compose-files/check${as}`, types.composeCheck, {
            body: text,
            contentType: "application/yaml",
        });
        setOpinion(answer);
        return answer;
    };

    const save = () =>
        act(file, "", async () => {
            let said = "";
            try {
                const answer = await check();
                said = answer.valid ? "" : answer.output || "It gave no reason.";
            } catch (error) {
                if (!(error instanceof Problem && error.status === 503)) {
                    throw error;
                }
                said = error.detail;
            }
            if (
                said &&
                !(await ask({
                    title: "Save it all the same?",
                    text: (
                        <>
                            <p>The compose tool does not take this text:</p>
                            <pre class="said">{said.slice(0, 4000)}</pre>
                        </>
                    ),
                    action: "Save",
                    danger: true,
                }))
            ) {
                return;
            }
            const { files } = await api.get("/compose-files", types.composeFiles);
            const present = files.some((other) => other.name === file)
                ? await api.text(`/compose-files/${segment(file)}`)
                : null;
            if (
                present !== null &&
                present !== (isNew ? null : stored) &&
                !(await ask({
                    title: `Overwrite ${file}?`,
                    text: isNew
                        ? "There is a file of this name already."
                        : "Somebody changed the file since you opened it.",
                    action: "Overwrite",
                    danger: true,
                }))
            ) {
                return;
            }
            await api.act(`/compose-files/${segment(file)}`, {
                method: "PUT",
                body: text,
                contentType: "application/yaml",
            });
            drafts.delete(name);
            setStored(text);
            tell(`${file} saved.`);
            if (isNew) {
                location.hash = addressOf.file(file);
            }
        });

    const remove = async () => {
        if (
            await ask({
                title: `Delete ${name}?`,
                text: "Its containers stay, but the project can no longer be operated from here.",
                action: "Delete",
                danger: true,
            })
        ) {
            const gone = await act(name, `${name} deleted.`, () =>
                api.act(`/compose-files/${segment(name)}`, { method: "DELETE" }),
            );
            if (gone) {
                drafts.delete(name);
                setStored(text);
                location.hash = "#/projects";
            }
        }
    };

    const isBusy = busy.size > 0;
    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>{isNew ? "New compose file" : name}</h1>
                <a href="#/projects">All projects</a>
            </div>
            {problem ? (
                <p class="notice failed" role="alert">
                    {problem}
                </p>
            ) : stored === null ? (
                <Loading what="the file" />
            ) : (
                <div class="card">
                    {isNew ? (
                        <div class="form">
                            <div class="field">
                                <label for="file-name">Name</label>
                                <input
                                    id="file-name"
                                    type="text"
                                    value={file}
                                    maxLength={128}
                                    placeholder="demo.yaml"
                                    spellcheck={false}
                                    aria-describedby="file-name-help"
                                    aria-invalid={file !== "" && !nameIsGood}
                                    onInput={(event) => setFile(event.currentTarget.value)}
                                />
                                <span
                                    id="file-name-help"
                                    class={file !== "" && !nameIsGood ? "wrong" : "help"}
                                >
                                    {nameHelp}
                                </span>
                            </div>
                        </div>
                    ) : null}
                    <label class="editor-label" for="editor">
                        Text {isChanged ? <State word="warning" say="not saved" /> : null}
                    </label>
                    <textarea
                        id="editor"
                        ref={area}
                        class="editor"
                        value={text}
                        readOnly={!mayAct}
                        spellcheck={false}
                        autocomplete="off"
                        autocapitalize="off"
                        wrap="off"
                        onInput={(event) => {
                            setText(event.currentTarget.value);
                            setOpinion(null);
                        }}
                    />
                    {isTooLong ? <p class="wrong">A compose file has at most 1 MiB.</p> : null}
                    <div role="status">
                        {opinion ? (
                            <div class={opinion.valid ? "result" : "result bad"}>
                                <State
                                    word={opinion.valid ? "ok" : "error"}
                                    say={
                                        opinion.valid
                                            ? "The compose tool takes it."
                                            : "The compose tool does not take it."
                                    }
                                />
                                {opinion.output ? (
                                    <pre class="said">{opinion.output.slice(0, 20_000)}</pre>
                                ) : null}
                            </div>
                        ) : null}
                    </div>
                    <div class="buttons">
                        <Act
                            class="primary"
                            off={isBusy || isTooLong || !nameIsGood || (!isChanged && !isNew)}
                            onClick={save}
                        >
                            Save
                        </Act>
                        <Act off={isBusy || isTooLong} onClick={() => act("Check", "", check)}>
                            Check
                        </Act>
                        {isChanged && !isNew ? (
                            <button
                                type="button"
                                onClick={async () => {
                                    if (
                                        await ask({
                                            title: "Drop your changes?",
                                            text: "The text becomes what is on the board again.",
                                            action: "Drop them",
                                            danger: true,
                                        })
                                    ) {
                                        setText(stored);
                                        setOpinion(null);
                                    }
                                }}
                            >
                                Drop changes …
                            </button>
                        ) : null}
                        {isNew ? null : (
                            <Act class="danger" off={isBusy} onClick={remove}>
                                Delete …
                            </Act>
                        )}
                    </div>
                </div>
            )}
        </>
    );
}
