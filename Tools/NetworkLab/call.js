// One end of a call, in a page (#OWN-OTHER) or in node (ORIGIN OWN OTHER): data, and from a page
// sound and a picture. The end that comes first in the alphabet calls, and calls again when it
// hears nothing.
'use strict';
const inPage = typeof window !== 'undefined';
const [origin, own, other] =
    inPage ? [location.origin, ...location.hash.slice(1).split('-')] : process.argv.slice(2);
const {RTCPeerConnection: Connection} = inPage ? window : require('@roamhq/wrtc');
const pc = new Connection({iceServers: [{urls: 'stun:stun.example:3478'}]});
const calls = own < other;
const candidates = [];
let [answered, upAfter, data, restarts] = [0, 0, 0, 0];

const wait = (ms) => new Promise((done) => setTimeout(done, ms));

async function ask(path, body) {
  for (;;) {  // the proxy may be away for a moment
    try {
      return await (await fetch(origin + path, {method: 'POST', body})).text();
    } catch {
      await wait(100);
    }
  }
}

let said = Promise.resolve();
function say(message) {
  said = said.then(() => ask('/say/' + other, JSON.stringify(message) + '\n'));
}

async function describe(making) {
  await pc.setLocalDescription(await making);
  const {type, sdp} = pc.localDescription;
  say({type, sdp});
}

async function take(message) {
  if (message.candidate) {
    await pc.addIceCandidate(message);
    return;
  }
  await pc.setRemoteDescription(message);
  answered ||= performance.now();
  if (message.type === 'offer') {
    await describe(pc.createAnswer());
  }
}

pc.onicecandidate = ({candidate}) => {
  if (candidate && candidate.candidate) {
    candidates.push(candidate.candidate);
    const {sdpMid, sdpMLineIndex} = candidate;
    say({candidate: candidate.candidate, sdpMid, sdpMLineIndex});
  }
};
pc.oniceconnectionstatechange = () => {
  const state = pc.iceConnectionState;
  if (state === 'connected') {
    upAfter ||= performance.now() - answered;
  } else if (calls && (state === 'disconnected' || state === 'failed')) {
    ++restarts;
    describe(pc.createOffer({iceRestart: true}));
  }
};
const channel = pc.createDataChannel('', {negotiated: true, id: 0});
channel.onmessage = () => ++data;
setInterval(() => channel.readyState === 'open' && channel.send('x'), 50);

function addMedia() {
  const canvas = document.createElement('canvas');
  const brush = canvas.getContext('2d');
  setInterval(() => brush.fillRect(Math.random() * 300, Math.random() * 150, 9, 9), 50);
  const sound = new AudioContext();
  const to = sound.createMediaStreamDestination();
  const tone = sound.createOscillator();
  tone.connect(to);
  tone.start();
  for (const stream of [canvas.captureStream(20), to.stream]) {
    stream.getTracks().forEach((track) => pc.addTrack(track, stream));
  }
}

async function report() {
  const got = {audio: 0, video: 0};
  const seen = [];
  (await pc.getStats()).forEach((one) => {
    if (one.type === 'inbound-rtp') {
      got[one.kind] = one.kind === 'video' ? one.framesDecoded : one.packetsReceived;
    } else if (one.type === 'remote-candidate') {
      seen.push(`sees ${one.address}`);
    }
  });
  const counts = [pc.iceConnectionState, upAfter, restarts, data, got.audio, got.video].join(' ');
  await ask('/report/' + own, [counts, ...candidates, ...seen].join('\n'));
}

(async () => {
  if (inPage) {
    addMedia();
  }
  if (calls) {
    await describe(pc.createOffer());
  }
  for (;; await wait(100)) {
    const heard = await ask('/hear/' + own);
    for (const message of heard.split('\n').filter(Boolean)) {
      await take(JSON.parse(message));
    }
    await report();
  }
})().catch((error) => ask('/report/' + own, `${error}`));
