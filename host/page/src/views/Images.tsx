import { segment } from "../api/client";
import { parseJson } from "../api/decode";
import * as types from "../api/types";
import { useShared } from "../context";
import { bytes, counted, moment, shortId } from "../format";
import { Act, Loading, Stale, Table, useActing } from "../parts/basics";
import { Upload } from "../parts/Upload";
import { usePoll } from "../poll";

export function Images() {
    const { api, ask } = useShared();
    const { data, problem, refresh } = usePoll(
        (signal) => api.get("/images", types.images, signal),
        "images",
    );
    const { busy, act } = useActing(refresh);
    const nameOf = (image: types.Image) => image.names[0] ?? shortId(image.id);

    const remove = async (image: types.Image) => {
        const isUsed = image.containers > 0;
        const yes = await ask({
            title: `Remove ${nameOf(image)}?`,
            text: isUsed
                ? `${counted(image.containers, "container")} made of it ${image.containers === 1 ? "is" : "are"} removed too, also when running.`
                : image.names.length > 1
                  ? `All its names go: ${image.names.join(", ")}.`
                  : "It has to be loaded again to be used again.",
            action: isUsed ? "Remove with its containers" : "Remove",
            danger: true,
        });
        if (yes) {
            await act(nameOf(image), `${nameOf(image)} removed.`, () =>
                api.act(
                    `/images/${segment(image.id)}${isUsed || image.names.length > 1 ? "?force=true" : ""}`,
                    {
                        method: "DELETE",
                    },
                ),
            );
        }
    };

    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>Images</h1>
                <Upload
                    kind="image"
                    label="Load an archive …"
                    accept=".tar,.gz,.tgz,application/x-tar"
                    help="A file made with podman save or docker save."
                    send={async (file, onProgress, signal) => {
                        const answer = await api.upload(
                            "POST",
                            "/images",
                            file,
                            "application/x-tar",
                            onProgress,
                            signal,
                        );
                        const { names } = types.loadedImages(parseJson(answer));
                        refresh();
                        return `Loaded ${names.join(", ") || file.name}.`;
                    }}
                />
            </div>
            <Stale problem={problem} hasData={data !== null} />
            {data ? (
                <Table
                    caption={counted(data.images.length, "image")}
                    items={data.images}
                    idOf={(image) => image.id}
                    empty="There are no images."
                    columns={[
                        {
                            head: "Name",
                            kind: "main",
                            cell: (image) =>
                                image.names.length > 0
                                    ? image.names.map((name) => <div key={name}>{name}</div>)
                                    : "without a name",
                        },
                        { head: "Id", cell: (image) => <code>{shortId(image.id)}</code> },
                        { head: "Size", kind: "number", cell: (image) => bytes(image.size) },
                        { head: "Made", cell: (image) => moment(image.created) },
                        { head: "Containers", kind: "number", cell: (image) => image.containers },
                        {
                            head: "Actions",
                            kind: "actions",
                            cell: (image) => (
                                <div class="buttons">
                                    <Act
                                        class="danger"
                                        off={busy.has(nameOf(image))}
                                        aria-label={`Remove ${nameOf(image)}`}
                                        onClick={() => remove(image)}
                                    >
                                        Remove …
                                    </Act>
                                </div>
                            ),
                        },
                    ]}
                />
            ) : problem ? null : (
                <Loading what="the images" />
            )}
        </>
    );
}
