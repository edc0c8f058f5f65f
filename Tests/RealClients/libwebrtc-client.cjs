// Two peers of libwebrtc, the near one on a relay and nothing else, send to each other what must
// arrive octet by octet, restart ICE, which takes a new relay, and do it again.
//
//   libwebrtc-client.cjs relay|host PORT      the far end is on a relay as well, or on anything
'use strict';
const {randomBytes} = require('crypto');
const {RTCPeerConnection} = require(process.env.ZK_WRTC + '/node_modules/@roamhq/wrtc');

const [far, port] = process.argv.slice(2);

function peer(iceTransportPolicy) {
  const urls = `turn:127.0.0.1:${port}?transport=udp`;
  const iceServers = [{urls, username: 'alice', credential: 'wonderland'}];
  return new RTCPeerConnection({iceServers, iceTransportPolicy});
}

// The first event of that name for which `holds`.
function next(target, name, holds = () => true) {
  return new Promise((resolve) => {
    target.addEventListener(name, (event) => holds() && resolve(event));
  });
}

// The description with all candidates in it.
async function describe(pc, description) {
  const gathered = next(pc, 'icegatheringstatechange', () => pc.iceGatheringState === 'complete');
  await pc.setLocalDescription(description);
  await gathered;
  return pc.localDescription;
}

async function negotiate(a, b, options) {
  await b.setRemoteDescription(await describe(a, await a.createOffer(options)));
  await a.setRemoteDescription(await describe(b, await b.createAnswer()));
}

async function portInUse(pc) {
  const stats = await pc.getStats();
  const transport = [...stats.values()].find((one) => one.type === 'transport');
  const pair = stats.get(transport.selectedCandidatePairId);
  return pair && stats.get(pair.localCandidateId).port;
}

async function exchange(a, b) {
  for (let size = 1; size < 1200; size += 24) {
    for (const [from, to] of [[a, b], [b, a]]) {
      const payload = randomBytes(size);
      const arrival = next(to, 'message');
      from.send(payload);
      if (!payload.equals(Buffer.from((await arrival).data))) {
        throw new Error('what arrived is not what was sent');
      }
    }
  }
}

async function call() {
  const [a, b] = [peer('relay'), peer(far === 'relay' ? 'relay' : 'all')];
  const near = a.createDataChannel('data', {ordered: false, maxRetransmits: 0});
  const [{channel}] = await Promise.all([next(b, 'datachannel'), next(near, 'open'),
    negotiate(a, b)]);
  await exchange(near, channel);
  const before = await portInUse(a);
  await negotiate(a, b, {iceRestart: true});
  while ([undefined, before].includes(await portInUse(a))) {  // no event tells of it
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
  await exchange(near, channel);
  a.close();
  b.close();
}

process.on('unhandledRejection', (error) => { console.error(error); process.exit(1); });
setTimeout(() => { throw new Error('not done in time'); }, 20000);
call().then(() => setTimeout(() => process.exit(0), 50));
