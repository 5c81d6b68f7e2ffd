import { Problem, segment } from "../api/client";
import * as types from "../api/types";
import { useShared } from "../context";
import { bytes, counted, moment } from "../format";
import { Act, Loading, Stale, State, Table, useActing } from "../parts/basics";
import { Upload } from "../parts/Upload";
import { usePoll } from "../poll";

/** Whether a plugin is off from the daemon's next start on. */
const isOff = (plugin: types.Plugin) => plugin.deactivatedNext ?? plugin.isDeactivated;

export function Plugins() {
    const { api, ask } = useShared();
    const { data, problem, refresh } = usePoll(
        (signal) => api.get("/plugins", types.plugins, signal),
        "plugins",
    );
    const { busy, act } = useActing(refresh);

    const rescan = () =>
        act("Plugins", "The plugin directories were read again.", () =>
            api.send("/plugins/rescan", types.plugins, {}),
        );
    const turn = (plugin: types.Plugin) => {
        const action = isOff(plugin) ? "activate" : "deactivate";
        return act(plugin.fileName, `${plugin.fileName} ${action}d, from the next start of the daemon.`, () =>
            api.act(`/plugins/${segment(plugin.fileName)}/${action}?directory=${plugin.directory}`),
        );
    };
    const remove = async (plugin: types.Plugin) => {
        const yes = await ask({
            title: `Delete ${plugin.fileName}?`,
            text: plugin.isLoaded
                ? "The file goes. The plugin stays loaded until the board restarts."
                : "The file goes from the user directory.",
            action: "Delete",
            danger: true,
        });
        if (yes) {
            await act(plugin.fileName, `${plugin.fileName} deleted.`, () =>
                api.act(`/plugins/${segment(plugin.fileName)}`, { method: "DELETE" }),
            );
        }
    };

    return (
        <>
            <div class="head">
                <h1 tabIndex={-1}>Plugins</h1>
                <Upload
                    kind="plugin"
                    label="Upload a plugin …"
                    accept=".crp"
                    help="It is loaded at the next start of the daemon."
                    send={async (file, onProgress, signal) => {
                        if (!types.fileName.test(file.name)) {
                            throw new Problem(
                                0,
                                "Name",
                                "The name may have letters, digits, dots, dashes and underscores only, and begins with a letter or a digit.",
                            );
                        }
                        const known = data?.plugins.find(
                            (plugin) => plugin.fileName === file.name && plugin.directory === "user",
                        );
                        if (known) {
                            const yes = await ask({
                                title: `Replace ${file.name}?`,
                                text: `Version ${known.version} of ${known.name} is there already.`,
                                action: "Replace",
                                danger: true,
                            });
                            if (!yes) {
                                return null;
                            }
                        }
                        await api.upload(
                            "PUT",
                            `/plugins/${segment(file.name)}`,
                            file,
                            "application/octet-stream",
                            onProgress,
                            signal,
                        );
                        await api.send("/plugins/rescan", types.plugins, {});
                        refresh();
                        return `${file.name} ${known ? "replaced" : "uploaded"}.`;
                    }}
                />
                <Act off={busy.has("Plugins")} onClick={rescan}>
                    Rescan
                </Act>
            </div>
            <Stale problem={problem} hasData={data !== null} />
            {data ? (
                <Table
                    caption={counted(data.plugins.length, "plugin")}
                    items={data.plugins}
                    idOf={(plugin) => plugin.path}
                    empty="No plugin was found."
                    columns={[
                        {
                            head: "File",
                            kind: "main",
                            cell: (plugin) => <span title={plugin.path}>{plugin.fileName}</span>,
                        },
                        {
                            head: "State",
                            cell: (plugin) => (
                                <>
                                    <State
                                        word={plugin.isLoaded ? "running" : "stopped"}
                                        say={plugin.isLoaded ? "loaded" : "not loaded"}
                                    />
                                    {isOff(plugin) !== plugin.isDeactivated ? (
                                        <div class="aside">
                                            {isOff(plugin) ? "off" : "on"} from the daemon's next start
                                        </div>
                                    ) : plugin.isDeactivated ? (
                                        <div class="aside">deactivated</div>
                                    ) : null}
                                </>
                            ),
                        },
                        { head: "Name", cell: (plugin) => `${plugin.name} ${plugin.version}` },
                        {
                            head: "Board",
                            cell: (plugin) =>
                                plugin.osCompatible ? (
                                    `fits (${plugin.compatibleOs})`
                                ) : (
                                    <State word="warning" say={`needs ${plugin.compatibleOs}`} />
                                ),
                        },
                        {
                            head: "Priority",
                            kind: "number",
                            cell: (plugin) => plugin.initPriority,
                        },
                        {
                            head: "Type",
                            kind: "number",
                            cell: (plugin) =>
                                plugin.pluginType === 1 ? "1" : `${plugin.pluginType}, never loaded`,
                        },
                        { head: "From", cell: (plugin) => plugin.directory },
                        { head: "Size", kind: "number", cell: (plugin) => bytes(plugin.size) },
                        {
                            head: "Made",
                            cell: (plugin) => moment(plugin.created > 0 ? timeOf(plugin.created) : null),
                        },
                        {
                            head: "Actions",
                            kind: "actions",
                            cell: (plugin) => (
                                <div class="buttons">
                                    <Act
                                        off={busy.has(plugin.fileName)}
                                        aria-label={`${isOff(plugin) ? "Activate" : "Deactivate"} ${plugin.fileName}`}
                                        onClick={() => turn(plugin)}
                                    >
                                        {isOff(plugin) ? "Activate" : "Deactivate"}
                                    </Act>
                                    {plugin.directory === "user" ? (
                                        <Act
                                            class="danger"
                                            off={busy.has(plugin.fileName)}
                                            aria-label={`Delete ${plugin.fileName}`}
                                            onClick={() => remove(plugin)}
                                        >
                                            Delete …
                                        </Act>
                                    ) : null}
                                </div>
                            ),
                        },
                    ]}
                />
            ) : problem ? null : (
                <Loading what="the plugins" />
            )}
        </>
    );
}

function timeOf(seconds: number): string | null {
    const date = new Date(seconds * 1000);
    return Number.isNaN(date.getTime()) ? null : date.toISOString();
}
