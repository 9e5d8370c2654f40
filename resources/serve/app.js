// The material editor: controls built from the server's model descriptions, a stream of
// server-sent events carrying the refining swatches, one POST per edit.
'use strict';

const $ = (id) => document.getElementById(id);

const state = {
  client: null,        // our id on the server, from the stream's "hello"
  models: [],          // /api/models
  model: null,         // the chosen model's description
  values: {},          // data key -> value of the chosen model
  extraData: {},       // keys pasted in JSON that no control shows (the server judges them)
  extraMembers: {},    // likewise for members of the material
  editorRequest: 0,    // newest request of the editor slot
  posting: false,      // a render POST is on its way
  dirty: false,        // an edit came while posting
  editAt: null,        // time of the first edit not yet answered by a frame
  editRequest: 0,      // the request that answers that edit
  frameAt: new Map(),  // request -> arrival of its first frame (may beat the POST's answer)
  lastPixels: null,    // the editor's previous frame, for the refinement figure
  lastRequest: 0,      // the request it belongs to
  view: 'editor',
  sheetRequests: new Map(),
};

// What a test (or a curious user in the console) can read: every editor frame with how
// much it changed from the one before, and the measured edit-to-frame times.
window.kelvo = { frames: [], latencies: [], state };

// --- Colour --------------------------------------------------------------------------------

const toLinear = (c) => (c <= 0.04045 ? c / 12.92 : Math.pow((c + 0.055) / 1.055, 2.4));
const toSrgb = (c) => (c <= 0.0031308 ? 12.92 * c : 1.055 * Math.pow(c, 1 / 2.4) - 0.055);

function hexToLinear(hex) {
  const n = parseInt(hex.slice(1), 16);
  return [(n >> 16) & 255, (n >> 8) & 255, n & 255].map((v) => +toLinear(v / 255).toFixed(4));
}

function linearToHex(rgb) {
  const byte = (v) => Math.round(Math.min(1, Math.max(0, toSrgb(v))) * 255);
  return '#' + rgb.map((v) => byte(v).toString(16).padStart(2, '0')).join('');
}

// --- Server --------------------------------------------------------------------------------

async function getJson(path) {
  const r = await fetch(path, { cache: 'no-store' });
  return r.json();
}

async function post(path, body) {
  const r = await fetch(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  });
  return r.json();
}

function showError(text) {
  const e = $('error');
  e.hidden = !text;
  e.textContent = text || '';
}

// --- The material --------------------------------------------------------------------------

function material(modelName, values) {
  const m = { model: modelName };
  const data = {};
  for (const [k, v] of Object.entries(values)) if (v !== '') data[k] = v;
  if (Object.keys(data).length) m.data = data;
  m.colour = hexToLinear($('colour').value);
  if ($('texture').value) {
    m.texture = $('texture').value;
    m.textureMode = $('textureMode').value;
  }
  if ($('ies').value) m.ies = $('ies').value;
  return m;
}

function editorMaterial() {
  return { ...material(state.model.model, { ...state.extraData, ...state.values }),
           ...state.extraMembers };
}

function showJson() {
  $('material-json').value = JSON.stringify(editorMaterial());
}

// --- Controls ------------------------------------------------------------------------------

function buildKeys() {
  const box = $('keys');
  box.replaceChildren();
  for (const key of state.model.keys) {
    if (!(key.key in state.values)) state.values[key.key] = key.value;
    const wrap = document.createElement('div');
    wrap.className = 'key ' + key.type;
    wrap.dataset.key = key.key;
    const label = document.createElement('span');
    label.textContent = key.label;
    let input;
    if (key.type === 'number') {
      input = document.createElement('input');
      Object.assign(input, { type: 'range', min: key.min, max: key.max, step: key.step });
      input.value = state.values[key.key];
      const out = document.createElement('output');
      out.textContent = (+input.value).toFixed(2);
      input.addEventListener('input', () => {
        state.values[key.key] = +input.value;
        out.textContent = (+input.value).toFixed(2);
        edited();
      });
      const row = document.createElement('div');
      row.className = 'row';
      row.append(input, out);
      wrap.append(label, row);
    } else if (key.type === 'bool') {
      input = document.createElement('input');
      input.type = 'checkbox';
      input.checked = !!state.values[key.key];
      input.addEventListener('change', () => {
        state.values[key.key] = input.checked;
        edited();
      });
      wrap.append(input, label);
    } else {
      input = document.createElement('select');
      for (const c of key.choices) input.add(new Option(c || 'none', c));
      input.value = state.values[key.key];
      input.addEventListener('change', () => {
        state.values[key.key] = input.value;
        edited();
      });
      wrap.append(label, input);
    }
    input.id = 'key-' + key.key;
    input.name = key.key;
    box.append(wrap);
  }
}

function chooseModel(name, values) {
  state.model = state.models.find((m) => m.model === name || m.id === name);
  if (!state.model) {
    showError(`Unknown model '${name}'.`);
    state.model = state.models[0];
  }
  $('model').value = state.model.model;
  state.values = {};
  for (const key of state.model.keys) state.values[key.key] = key.value;
  state.extraData = {};
  for (const [k, v] of Object.entries(values || {})) {
    if (k in state.values) state.values[k] = v;
    else state.extraData[k] = v;
  }
  buildKeys();
}

// A file named in pasted JSON is chosen even when the list lacks it: the server judges it.
function setFile(id, value) {
  const select = $(id);
  const name = typeof value === 'string' ? value : '';
  if (name && ![...select.options].some((o) => o.value === name)) select.add(new Option(name, name));
  select.value = name;
}

// Pasted JSON sets the controls; members no control shows go to the server as they are.
function applyJson() {
  let m;
  try {
    m = JSON.parse($('material-json').value);
  } catch (e) {
    showError('The material is not valid JSON.');
    return;
  }
  if (!m || typeof m !== 'object' || Array.isArray(m)) {
    showError('The material must be a JSON object.');
    return;
  }
  showError('');
  const known = ['model', 'data', 'colour', 'texture', 'textureMode', 'ies'];
  chooseModel(m.model || 'lambertbrdf', m.data);
  state.extraMembers = Object.fromEntries(Object.entries(m).filter(([k]) => !known.includes(k)));
  if (Array.isArray(m.colour) && m.colour.length === 3) $('colour').value = linearToHex(m.colour);
  setFile('texture', m.texture);
  if (m.textureMode) $('textureMode').value = m.textureMode;
  setFile('ies', m.ies);
  edited();
}

// --- Editing -------------------------------------------------------------------------------

function edited() {
  if (state.editAt === null) state.editAt = performance.now();
  showJson();
  // The sheet refines as normal requests: an editor request would preempt it.
  if (state.view === 'editor') submitEditor();
  else submitSheet();
}

// One POST at a time: edits that come meanwhile are sent together when it answers, so a
// dragged slider never queues stale requests.
async function submitEditor() {
  if (state.client === null) return;
  if (state.posting) {
    state.dirty = true;
    return;
  }
  state.posting = true;
  state.dirty = false;
  const size = +$('size').value;
  try {
    const answer = await post('/api/render', {
      client: state.client,
      slot: 'editor',
      material: editorMaterial(),
      scene: $('scene').value,
      size,
      iterations: Math.max(1, Math.min(4096, +$('iterations').value || 64)),
      priority: true,
    });
    if (answer.error) {
      showError(answer.error);
      state.editAt = null;
    } else {
      showError('');
      state.editorRequest = Math.max(state.editorRequest, answer.request);
      if (state.editAt !== null) {
        state.editRequest = answer.request;
        const at = state.frameAt.get(answer.request);
        if (at !== undefined) reportLatency(at);
      }
    }
  } catch (e) {
    showError('The server cannot be reached.');
  }
  state.posting = false;
  if (state.dirty) submitEditor();
}

function reportLatency(arrived) {
  const ms = arrived - state.editAt;
  state.editAt = null;
  state.editRequest = 0;
  window.kelvo.latencies.push(ms);
  $('latency').textContent = `first frame after an edit: ${ms.toFixed(0)} ms`;
}

// --- Frames --------------------------------------------------------------------------------

function decode(frame) {
  const bytes = atob(frame.rgba);
  const pixels = new Uint8ClampedArray(bytes.length);
  for (let i = 0; i < bytes.length; ++i) pixels[i] = bytes.charCodeAt(i);
  return pixels;
}

function draw(canvas, frame, pixels) {
  if (!frame.width || !frame.height) return;
  if (canvas.width !== frame.width) canvas.width = frame.width;
  if (canvas.height !== frame.height) canvas.height = frame.height;
  canvas.getContext('2d').putImageData(new ImageData(pixels, frame.width, frame.height), 0, 0);
}

function formatRate(r) {
  if (r >= 1e6) return (r / 1e6).toFixed(2) + ' M';
  if (r >= 1e3) return (r / 1e3).toFixed(1) + ' k';
  return r.toFixed(0) + ' ';
}

function editorFrame(frame) {
  const now = performance.now();
  if (!state.frameAt.has(frame.request)) {
    state.frameAt.set(frame.request, now);
    if (state.frameAt.size > 64) state.frameAt.delete(state.frameAt.keys().next().value);
  }
  if (frame.request < state.editorRequest) return;  // a replaced request's last word
  const fresh = frame.request !== state.lastRequest || !state.lastPixels;
  state.editorRequest = frame.request;
  state.lastRequest = frame.request;
  if (state.editAt !== null && state.editRequest === frame.request) reportLatency(now);

  const pixels = decode(frame);
  let diff = null;
  if (!fresh && state.lastPixels && state.lastPixels.length === pixels.length) {
    let sum = 0;
    for (let i = 0; i < pixels.length; i += 4)
      sum += Math.abs(pixels[i] - state.lastPixels[i]) +
             Math.abs(pixels[i + 1] - state.lastPixels[i + 1]) +
             Math.abs(pixels[i + 2] - state.lastPixels[i + 2]);
    diff = sum / (pixels.length / 4 * 3);
  }
  state.lastPixels = pixels;
  draw($('swatch'), frame, pixels);
  window.kelvo.frames.push({
    request: frame.request, iteration: frame.iteration, count: frame.count, diff, at: now,
  });
  if (window.kelvo.frames.length > 2000) window.kelvo.frames.shift();
  $('progress').textContent =
    `iteration ${frame.iteration} / ${frame.count} · ` +
    `${formatRate(frame.samplesPerSecond)}samples/s`;
}

function sheetFrame(frame) {
  const model = frame.slot.slice('sheet-'.length);
  const cell = document.querySelector(`.cell[data-model="${model}"]`);
  if (!cell || state.sheetRequests.get(model) > frame.request) return;
  state.sheetRequests.set(model, frame.request);
  draw(cell.querySelector('canvas'), frame, decode(frame));
  cell.querySelector('.state').textContent = `${frame.iteration} / ${frame.count}`;
}

// --- Sheet ---------------------------------------------------------------------------------

function buildSheet() {
  const sheet = $('sheet');
  sheet.replaceChildren();
  for (const m of state.models) {
    const cell = document.createElement('div');
    cell.className = 'cell';
    cell.dataset.model = m.model;
    const canvas = document.createElement('canvas');
    canvas.width = canvas.height = 96;
    const name = document.createElement('span');
    name.className = 'name';
    name.textContent = m.model;
    const s = document.createElement('span');
    s.className = 'state';
    s.textContent = 'waiting';
    cell.append(canvas, name, s);
    cell.addEventListener('click', () => {
      chooseModel(m.model);
      showJson();
      setView('editor');
    });
    sheet.append(cell);
  }
}

async function submitSheet() {
  if (state.client === null) return;
  for (const m of state.models) {
    const values = {};
    for (const key of m.keys) values[key.key] = key.value;
    const answer = await post('/api/render', {
      client: state.client,
      slot: 'sheet-' + m.model,
      material: material(m.model, values),
      scene: $('scene').value,
      size: 96,
      iterations: 32,
      priority: false,
    });
    if (answer.error) {
      const cell = document.querySelector(`.cell[data-model="${m.model}"] .state`);
      if (cell) cell.textContent = answer.error;
    } else {
      state.sheetRequests.set(m.model, answer.request);
    }
  }
}

async function releaseSheet() {
  if (state.client === null) return;
  await Promise.all(state.models.map(
      (m) => post('/api/release', { client: state.client, slot: 'sheet-' + m.model })));
}

function setView(view) {
  if (view === state.view) return;
  state.view = view;
  $('editor-view').hidden = view !== 'editor';
  $('sheet-view').hidden = view !== 'sheet';
  $('tab-editor').classList.toggle('active', view === 'editor');
  $('tab-sheet').classList.toggle('active', view === 'sheet');
  if (view === 'sheet') {
    submitSheet();
  } else {
    releaseSheet();
    submitEditor();
  }
}

// --- Start ---------------------------------------------------------------------------------

function connect() {
  const events = new EventSource('/api/events');
  events.addEventListener('hello', (e) => {
    state.client = JSON.parse(e.data).client;
    state.editorRequest = 0;
    $('connection').textContent = 'live';
    $('connection').classList.add('live');
    edited();
  });
  events.addEventListener('frame', (e) => {
    const frame = JSON.parse(e.data);
    if (frame.slot === 'editor') editorFrame(frame);
    else if (frame.slot.startsWith('sheet-')) sheetFrame(frame);
  });
  events.addEventListener('end', (e) => {
    const end = JSON.parse(e.data);
    if (end.slot === 'editor' && end.state === 'failed' && end.request >= state.editorRequest)
      showError(end.error);
    if (end.slot.startsWith('sheet-') && end.state === 'failed') {
      const cell = document.querySelector(`.cell[data-model="${end.slot.slice(6)}"] .state`);
      if (cell) cell.textContent = end.error;
    }
  });
  // The browser reconnects by itself; the server then knows us under a new id.
  events.onerror = () => {
    state.client = null;
    $('connection').textContent = 'reconnecting';
    $('connection').classList.remove('live');
  };
}

async function start() {
  const [models, files] = await Promise.all([getJson('/api/models'), getJson('/api/files')]);
  state.models = models.models;
  for (const m of state.models) $('model').add(new Option(`${m.model} (${m.label})`, m.model));
  for (const s of models.scenes.filter((s) => s !== 'open')) $('scene').add(new Option(s, s));
  for (const t of models.textureModes) $('textureMode').add(new Option(t, t));
  $('textureMode').value = 'mipmap';
  for (const f of files.textures) $('texture').add(new Option(f, f));
  for (const f of files.ies) $('ies').add(new Option(f, f));
  $('iterations').max = models.limits.maxIterations;

  chooseModel('ggxbrdf');
  buildSheet();
  $('model').addEventListener('change', () => {
    chooseModel($('model').value);
    edited();
  });
  for (const id of ['colour', 'texture', 'textureMode', 'ies', 'scene', 'size', 'iterations'])
    $(id).addEventListener(id === 'colour' ? 'input' : 'change', edited);
  $('apply-json').addEventListener('click', applyJson);
  $('copy-json').addEventListener('click', () => navigator.clipboard?.writeText($('material-json').value));
  $('tab-editor').addEventListener('click', () => setView('editor'));
  $('tab-sheet').addEventListener('click', () => setView('sheet'));
  showJson();
  connect();
}

start().catch((e) => showError('The page could not start: ' + e.message));
