import type { ComponentChildren } from "preact";
import { useLayoutEffect, useRef } from "preact/hooks";

export interface Question {
    title: string;
    text: ComponentChildren;
    /** what the button says that does it */
    action: string;
    danger?: boolean;
}

interface Properties {
    question: Question;
    answer: (yes: boolean) => void;
}

/** A modal question; Escape and the first button mean no. */
export function Asking({ question, answer }: Properties) {
    const dialog = useRef<HTMLDialogElement>(null);
    // At once, so that no key meant for it goes elsewhere.
    useLayoutEffect(() => {
        const element = dialog.current;
        element?.showModal();
        return () => element?.close();
    }, []);
    return (
        <dialog
            ref={dialog}
            class="asking"
            aria-labelledby="asking-title"
            aria-describedby="asking-text"
            onCancel={(event) => {
                event.preventDefault();
                answer(false);
            }}
        >
            <h2 id="asking-title">{question.title}</h2>
            <div id="asking-text">{question.text}</div>
            <div class="buttons">
                <button type="button" onClick={() => answer(false)}>
                    Cancel
                </button>
                <button
                    type="button"
                    class={question.danger ? "danger" : "primary"}
                    onClick={() => answer(true)}
                >
                    {question.action}
                </button>
            </div>
        </dialog>
    );
}
