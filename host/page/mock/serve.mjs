import { MockDaemon } from "./daemon.mjs";

const daemon = new MockDaemon();
const address = await daemon.listen(Number(process.env.PORT ?? 8088));
console.log(`${address}#token=act-token or ${address}#token=look-token`);
