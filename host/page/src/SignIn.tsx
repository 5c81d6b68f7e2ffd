import { useEffect, useRef, useState } from "preact/hooks";
import { words } from "./api/client";

interface Properties {
    problem: string;
    open: (token: string) => Promise<void>;
}

export function SignIn({ problem, open }: Properties) {
    const [failed, setFailed] = useState(problem);
    const [busy, setBusy] = useState(false);
    const field = useRef<HTMLInputElement>(null);
    useEffect(() => {
        document.title = "Sign in – Containers";
        field.current?.focus();
    }, []);

    const submit = async (event: Event) => {
        event.preventDefault();
        const token = field.current?.value.trim() ?? "";
        if (!token) {
            setFailed("Type or paste a token.");
            return;
        }
        setBusy(true);
        try {
            await open(token);
        } catch (error) {
            setFailed(words(error));
            setBusy(false);
            field.current?.select();
        }
    };

    return (
        <main class="gate">
            <h1>Containers</h1>
            <form onSubmit={submit}>
                <label for="token">Token</label>
                <input
                    id="token"
                    ref={field}
                    type="password"
                    autocomplete="current-password"
                    maxLength={200}
                    spellcheck={false}
                    aria-describedby="token-help"
                    aria-invalid={failed !== ""}
                />
                <p id="token-help" class="help">
                    Tokens are made on the board: they say whether you may look or act.
                </p>
                <button type="submit" class="primary" disabled={busy}>
                    Sign in
                </button>
                <p class={failed ? "notice failed" : "unseen"} role="alert">
                    {failed}
                </p>
            </form>
        </main>
    );
}
