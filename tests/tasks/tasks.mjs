// The tasks: each is what an agent would send through `do`, acting and
// checking in one call, followed by a check made outside Glimmerstrand: a
// file read back, an application's own saved state, the X server's windows.
import { existsSync, readdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { performance } from 'node:perf_hooks';

import { check, processEnded, rowsOf, TaskFailure } from './harness.mjs';
import { BROWSERS, priceOf, servePages } from './web_pages.mjs';

const FORM = 'form_app.py';

/** Quits LibreOffice, whose one process holds every document, so that the next task starts it anew. */
async function quitOffice(session) {
  const quit = await session.do('soffice', 'CALL ui.apps(); CALL ui.quit("soffice")');
  const pid = Number(rowsOf(quit, 1).find((row) => row.name === 'soffice')?.pid);
  check(pid > 0 && (await processEnded(pid, 20_000)), `LibreOffice still runs after ui.quit:\n${quit}`);
}

/** Prints the content.xml of an OpenDocument file (a zip). */
const UNZIP_CONTENT = 'import sys, zipfile; print(zipfile.ZipFile(sys.argv[1]).read("content.xml").decode())';

function press(label, name) {
  return `MATCH (b:${label} {name:${JSON.stringify(name)}}) SET b.pressed = true`;
}

function quoted(text) {
  return JSON.stringify(text);
}

/** Saving in the editor: the key, then a wait until the title loses its modified mark. */
const saveInEditor =
  'CALL ui.key("ctrl+s"); CALL ui.wait_for("MATCH (w:Window) WHERE w.name STARTS WITH \\"/\\" RETURN w.name", 5000)';

function fileText(file) {
  check(existsSync(file), `${file} was not written`);
  return readFileSync(file, 'utf8');
}

/** Every file below `folder` whose text holds `needle`. */
function filesHolding(folder, needle) {
  if (!existsSync(folder)) return [];
  const found = [];
  for (const entry of readdirSync(folder, { recursive: true })) {
    const file = path.join(folder, entry);
    if (statSync(file).isFile() && readFileSync(file, 'utf8').includes(needle)) found.push(file);
  }
  return found;
}

function editorPid(text) {
  const row = rowsOf(text, 1)[0];
  check(row && /mousepad/i.test(row.app), `ui.open did not name the editor:\n${text}`);
  return Number(row.pid);
}

// Tasks marked `core` run over both transports; those marked `http` only over HTTP.
export const tasks = [
  {
    name: 'tools-list',
    core: true,
    async run({ session }) {
      const { tools } = await session.client.listTools();
      check(tools.length === 1 && tools[0].name === 'do', `the tools are ${JSON.stringify(tools.map((t) => t.name))}, not do alone`);
      const schema = tools[0].inputSchema;
      check(JSON.stringify(schema.required) === '["cypher","app"]', `do requires ${JSON.stringify(schema.required)}`);
    },
  },
  {
    name: 'gtk3-calculator-sum',
    core: true,
    async run({ session, world }) {
      const keys = ['AC', '1', '2', '+', '3', '4', '='].map((name) => press('CheckBox', name));
      const text = await session.do('galculator', [...keys, 'MATCH (t:TextArea) RETURN t.value'].join('; '));
      const shown = rowsOf(text, keys.length + 1)[0]?.['t.value'];
      check(shown === '46', `the display reads ${shown}, not 46:\n${text}`);
      // galculator writes the display's value into its settings when it quits.
      const quit = await session.do('galculator', 'CALL ui.quit("galculator")');
      check(/^ok quit/m.test(quit), `galculator did not quit:\n${quit}`);
      check(await processEnded(world.pidOf('galculator'), 10_000), 'galculator still runs after ui.quit');
      const settings = fileText(path.join(world.environment.XDG_CONFIG_HOME, 'galculator', 'galculator.conf'));
      check(/^remembered_valuex="46"$/m.test(settings), 'galculator.conf does not remember 46 as its display value');
    },
  },
  {
    name: 'gtk4-calculator-sum',
    async run({ session, connect, world }) {
      const text = await session.do(
        'gnome-calculator',
        // The calculator works the sum out on a thread of its own, at times
        // after the keys' echo has gone quiet: the agent waits for it.
        'CALL ui.key("escape"); CALL ui.type("12+34"); CALL ui.key("return"); ' +
          'CALL ui.wait_for("MATCH (t:TextArea {value: \\"46\\"}) RETURN t.id", 3000); ' +
          'MATCH (t:TextArea) WHERE t.value <> "" RETURN t.value',
      );
      const shown = rowsOf(text, 5).map((row) => row['t.value']);
      check(shown.includes('46'), `the display reads ${JSON.stringify(shown)}, not 46:\n${text}`);
      // A second agent that reads afresh sees the same result; the first
      // leaves, so its lease does not hold the second up for its grace.
      await world.closeSession(session);
      const other = await connect();
      const again = await other.do('gnome-calculator', 'CALL ui.refresh(); MATCH (t:TextArea) WHERE t.value = "46" RETURN count(t) AS shown');
      check(rowsOf(again, 2)[0]?.shown === '1', `a fresh read does not show 46:\n${again}`);
    },
  },
  {
    name: 'qt-calculator-expression',
    async run({ session, world }) {
      const opened = await session.do(
        null,
        'CALL ui.open("SpeedCrunch"); CALL ui.type("(12+34)*2"); CALL ui.key("return"); MATCH (e) WHERE e.text CONTAINS "92" RETURN e.role, e.value LIMIT 5',
        { allowError: true },
      );
      if (/^error in #1/m.test(opened) || !/^ok open /m.test(opened))
        throw new TaskFailure(`SpeedCrunch (Qt5) could not be opened or seen on the accessibility bus:\n${opened}`);
      check(rowsOf(opened, 4).length > 0, `no element shows 92 after typing (12+34)*2:\n${opened}`);
      const quit = await session.do('SpeedCrunch', 'CALL ui.quit("SpeedCrunch")');
      check(/^ok quit/m.test(quit), `SpeedCrunch did not quit:\n${quit}`);
      // SpeedCrunch keeps its history in its own files when it quits.
      const kept = [world.environment.XDG_DATA_HOME, world.environment.XDG_CONFIG_HOME].flatMap((folder) =>
        filesHolding(path.join(folder, 'SpeedCrunch'), '92'),
      );
      check(kept.length > 0, "SpeedCrunch's saved history does not hold the result 92");
    },
  },
  {
    name: 'note-saved-through-dialog',
    async run({ session, world }) {
      const file = path.join(world.files, 'note.txt');
      const typed = await session.do(
        null,
        'CALL ui.open("Mousepad"); MATCH (t:TextArea) SET t.focused = true; CALL ui.type("first note"); CALL ui.key("ctrl+s"); ' +
          // The dialog reads as a sheet of the editor's window.
          'CALL ui.wait_for("MATCH (s:Sheet {name:\\"Save As\\"}) RETURN s.id", 5000)',
      );
      world.editorPid = editorPid(typed);
      check(rowsOf(typed, 5).length === 1, `no save dialog came up:\n${typed}`);
      await session.do(
        'mousepad',
        // The dialog enables Save only once it has looked at the typed name.
        `MATCH (f:TextField) WHERE f.focused = true SET f.value = ${quoted(file)}; ` +
          'CALL ui.wait_for("MATCH (b:Button {name:\\"Save\\"}) WHERE b.enabled = true RETURN b.id", 3000); ' +
          `${press('Button', 'Save')}; ` +
          'CALL ui.wait_for("MATCH (w:Window) WHERE w.name CONTAINS \\"note.txt\\" RETURN w.name", 5000)',
      );
      check(fileText(file) === 'first note' || fileText(file) === 'first note\n', `note.txt holds ${quoted(fileText(file))}`);
    },
  },
  {
    name: 'calc-sheet-saved-as-csv',
    // LibreOffice's menus and dialogs are driven on X11 only so far.
    x11: true,
    async run({ session, world }) {
      const file = path.join(world.files, 'sums.csv');
      const opened = await session.do(
        null,
        'CALL ui.open("LibreOffice Calc"); ' +
          // A new profile greets with a tip of the day, as a sheet of the window.
          'CALL ui.wait_for("MATCH (s:Sheet) RETURN s.name", 5000)',
      );
      if (rowsOf(opened, 2).length > 0)
        await session.do('soffice', 'MATCH (s:Sheet)-[:CHILD*1..8]->(b:Button {name:"OK"}) SET b.pressed = true');
      const cells = [
        ['A1', '12'],
        ['A2', '30'],
        ['A3', '=A1+A2'],
      ];
      const filled = await session.do(
        'soffice',
        [
          ...cells.map(([cell, value]) => `MATCH (c:Cell {name:"${cell}"}) SET c.value = ${quoted(value)}`),
          'MATCH (c:Cell {name:"A3"}) RETURN c.value',
        ].join('; '),
      );
      const sum = rowsOf(filled, cells.length + 1)[0]?.['c.value'];
      check(sum === '42', `A3 reads ${sum}, not 42:\n${filled}`);
      await session.do(
        'soffice',
        'CALL ui.key("ctrl+shift+s"); CALL ui.wait_for("MATCH (s:Sheet {name:\\"Save\\"}) RETURN s.id", 5000); ' +
          `MATCH (s:Sheet)-[:CHILD*1..12]->(f:TextField) SET f.value = ${quoted(file)}; ` +
          'MATCH (s:Sheet)-[:CHILD*1..12]->(b:Button {name:"Save"}) SET b.pressed = true; ' +
          'CALL ui.wait_for("MATCH (b:Button {name:\\"Use Text CSV Format\\"}) RETURN b.id", 5000); ' +
          `${press('Button', 'Use Text CSV Format')}; ` +
          'CALL ui.wait_for("MATCH (s:Sheet {name:\\"Export Text File\\"}) RETURN s.id", 5000); ' +
          'MATCH (s:Sheet {name:"Export Text File"})-[:CHILD*1..8]->(b:Button {name:"OK"}) SET b.pressed = true; ' +
          'CALL ui.wait_for("MATCH (w:Window) WHERE w.name CONTAINS \\"sums.csv\\" RETURN w.name", 5000)',
      );
      const rows = fileText(file).trim().split('\n');
      check(rows.join('|') === '12|30|42', `sums.csv holds ${quoted(fileText(file))}`);
      await quitOffice(session);
    },
  },
  {
    name: 'writer-bold-paragraph-saved',
    // LibreOffice's menus and dialogs are driven on X11 only so far.
    x11: true,
    async run({ session, world }) {
      const file = path.join(world.files, 'report.odt');
      const opened = await session.do(
        null,
        'CALL ui.open("LibreOffice Writer"); CALL ui.wait_for("MATCH (s:Sheet) RETURN s.name", 5000)',
      );
      if (rowsOf(opened, 2).length > 0)
        await session.do('soffice', 'MATCH (s:Sheet)-[:CHILD*1..8]->(b:Button {name:"OK"}) SET b.pressed = true');
      const typed = await session.do(
        'soffice',
        'CALL ui.type("Quarterly report"); CALL ui.key("ctrl+a"); ' +
          `${press('AppMenuItem', 'Bold')}; MATCH (b:CheckBox {name:"Bold"}) RETURN b.value`,
      );
      check(rowsOf(typed, 4)[0]?.['b.value'] === '1', `the text did not turn bold:\n${typed}`);
      await session.do(
        'soffice',
        `${press('AppMenuItem', 'Save')}; CALL ui.wait_for("MATCH (s:Sheet {name:\\"Save\\"}) RETURN s.id", 5000); ` +
          `MATCH (s:Sheet)-[:CHILD*1..12]->(f:TextField) SET f.value = ${quoted(file)}; ` +
          'MATCH (s:Sheet)-[:CHILD*1..12]->(b:Button {name:"Save"}) SET b.pressed = true; ' +
          'CALL ui.wait_for("MATCH (w:Window) WHERE w.name CONTAINS \\"report.odt\\" RETURN w.name", 5000)',
      );
      // The saved document, read by the system's own unzip of its content.
      const content = world.run('/usr/bin/python3', ['-c', UNZIP_CONTENT, file]).stdout ?? '';
      check(content.includes('Quarterly report'), 'report.odt does not hold the paragraph');
      check(/fo:font-weight="bold"/.test(content), 'report.odt holds no bold text');
      await quitOffice(session);
    },
  },
  {
    name: 'impress-slide-title-saved',
    // LibreOffice's menus and dialogs are driven on X11 only so far.
    x11: true,
    async run({ session, world }) {
      const file = path.join(world.files, 'roadmap.odp');
      const opened = await session.do(
        null,
        'CALL ui.open("LibreOffice Impress"); CALL ui.wait_for("MATCH (s:Sheet) RETURN s.name", 5000)',
      );
      // A new profile offers templates, and perhaps a tip of the day.
      for (let sheets = rowsOf(opened, 2).length; sheets > 0; ) {
        const closed = await session.do(
          'soffice',
          'MATCH (s:Sheet)-[:CHILD*1..10]->(b:Button) WHERE b.name IN ["Close", "OK"] SET b.pressed = true; ' +
            'MATCH (s:Sheet) RETURN s.name',
        );
        sheets = rowsOf(closed, 2).length;
      }
      // Return puts the selected title into editing before the keys come.
      const titled = await session.do(
        'soffice',
        'CALL ui.click("PresentationTitle"); CALL ui.key("return"); CALL ui.type("Roadmap 2027"); CALL ui.key("escape"); ' +
          'MATCH (g:Group {name:"PresentationTitle"})-[:CHILD]->(t) RETURN t.value',
      );
      const title = rowsOf(titled, 5)[0]?.['t.value'];
      check(title === 'Roadmap 2027', `the title reads ${quoted(title)}:\n${titled}`);
      await session.do(
        'soffice',
        `${press('AppMenuItem', 'Save')}; CALL ui.wait_for("MATCH (s:Sheet {name:\\"Save\\"}) RETURN s.id", 5000); ` +
          `MATCH (s:Sheet)-[:CHILD*1..12]->(f:TextField) SET f.value = ${quoted(file)}; ` +
          'MATCH (s:Sheet)-[:CHILD*1..12]->(b:Button {name:"Save"}) SET b.pressed = true; ' +
          'CALL ui.wait_for("MATCH (w:Window) WHERE w.name CONTAINS \\"roadmap.odp\\" RETURN w.name", 5000)',
      );
      const content = world.run('/usr/bin/python3', ['-c', UNZIP_CONTENT, file]).stdout ?? '';
      check(content.includes('Roadmap 2027'), 'roadmap.odp does not hold the title');
      await quitOffice(session);
    },
  },
  {
    name: 'menu-changes-document',
    async run({ session, world }) {
      const file = path.join(world.files, 'note.txt');
      // The item sits in a submenu that never opened; the menu closes with the
      // press all the same, or it would keep the keys of the save.
      const text = await session.do(
        'mousepad',
        'MATCH (t:TextArea) SET t.focused = true; CALL ui.key("ctrl+a"); CALL ui.menu("Edit"); ' +
          `${press('MenuItem', 'To Uppercase')}; MATCH (t:TextArea) RETURN t.value; ${saveInEditor}`,
      );
      check(rowsOf(text, 5)[0]?.['t.value'] === 'FIRST NOTE', `the document did not turn upper case:\n${text}`);
      check(fileText(file).trim() === 'FIRST NOTE', `note.txt holds ${quoted(fileText(file))}`);
    },
  },
  {
    name: 'clipboard-between-apps',
    async run({ session, world }) {
      const file = path.join(world.files, 'note.txt');
      const copied = await session.do(
        FORM,
        'MATCH (t:TextField) SET t.value = "copied across apps"; MATCH (t:TextField) SET t.focused = true; ' +
          // The copy is the application's to make after the keys arrive: a
          // moment passes before the clipboard is read.
          'CALL ui.key("ctrl+a"); CALL ui.key("ctrl+c"); CALL ui.wait(0.3); CALL ui.clipboard()',
      );
      check(rowsOf(copied, 6)[0]?.text === 'copied across apps', `the clipboard does not hold the field's text:\n${copied}`);
      const pasted = await session.do(
        'mousepad',
        'MATCH (t:TextArea) SET t.focused = true; CALL ui.key("ctrl+end"); CALL ui.key("return"); CALL ui.key("ctrl+v"); ' +
          `MATCH (t:TextArea) RETURN t.value; ${saveInEditor}`,
      );
      check(/copied across apps/.test(rowsOf(pasted, 5)[0]?.['t.value'] ?? ''), `the editor does not show the pasted text:\n${pasted}`);
      check(fileText(file).includes('FIRST NOTE\ncopied across apps'), `note.txt holds ${quoted(fileText(file))}`);
    },
  },
  {
    name: 'unsaved-close-saves',
    async run({ session, world }) {
      const file = path.join(world.files, 'note.txt');
      const asked = await session.do(
        'mousepad',
        'MATCH (t:TextArea) SET t.focused = true; CALL ui.key("ctrl+end"); CALL ui.type(" and a tail"); CALL ui.quit("mousepad"); ' +
          'CALL ui.wait_for("MATCH (b:Button) WHERE b.name CONTAINS \\"Don\\" RETURN b.name", 5000)',
      );
      check(/^failed quit/m.test(asked), `the editor quit without asking about its changes:\n${asked}`);
      check(rowsOf(asked, 5).length > 0, `no "save changes?" dialog came up:\n${asked}`);
      await session.do('mousepad', 'MATCH (w:Window)-[:CHILD*1..8]->(b:Button {name:"Save"}) WHERE w.name <> "" SET b.pressed = true');
      check(await processEnded(world.editorPid, 10_000), 'the editor still runs after its dialog was answered with Save');
      check(fileText(file).endsWith('copied across apps and a tail'), `note.txt holds ${quoted(fileText(file))}`);
    },
  },
  {
    name: 'open-url-default-app',
    async run({ session, world }) {
      const file = path.join(world.files, 'greeting.txt');
      writeFileSync(file, 'Hello from a file\n');
      const text = await session.do(null, `CALL ui.open_url(${quoted(`file://${file}`)}); MATCH (t:TextArea) RETURN t.value`);
      const row = rowsOf(text, 1)[0];
      // The editor's window is looked for on the X server or the compositor itself, polling while it starts.
      let shown = false;
      for (let tries = 0; tries < 100 && !shown; ++tries) {
        shown = world.windowTitles().includes('greeting.txt - Mousepad');
        if (!shown) await new Promise((resolve) => setTimeout(resolve, 100));
      }
      check(shown, 'the desktop has no editor window titled greeting.txt');
      check(
        row && /mousepad/i.test(row.app),
        `the file opened in the editor, but ui.open_url named ${row?.app} and the rest of the call worked on it:\n${text}`,
      );
      check(rowsOf(text, 2).some((r) => r['t.value'] === 'Hello from a file'), `the editor does not show the file's text:\n${text}`);
      await session.do('mousepad', 'CALL ui.quit("mousepad")');
      check(await processEnded(Number(row.pid), 10_000), 'the editor still runs after ui.quit');
    },
  },
  {
    name: 'screenshot-to-clipboard',
    async run({ session, world }) {
      const text = await session.do('gtk3-widget-factory', 'CALL ui.copy_screenshot()');
      const size = /^ok copy_screenshot (\d+x\d+)px png$/m.exec(text)?.[1];
      check(size, `no picture was copied:\n${text}`);
      // Another application reads the clipboard as an image of that size.
      const seen = world.clipboardImageSize();
      check(seen === size, `the clipboard holds ${seen}, not a ${size} picture`);
    },
  },
  {
    name: 'widget-factory-controls',
    async run({ session, connect, world }) {
      const found = await session.do(
        'gtk3-widget-factory',
        'MATCH (c:CheckBox {name:"checkbutton"}) WHERE c.enabled = true AND c.value = "0" RETURN c.id LIMIT 1; ' +
          'MATCH (s:Slider) WHERE s.enabled = true AND s.value = "50" RETURN s.id LIMIT 1; ' +
          'MATCH (p:PopUpButton {value:"Left"}) RETURN p.id LIMIT 1',
      );
      const [box, slider, combo] = [1, 2, 3].map((n) => Object.values(rowsOf(found, n)[0] ?? {})[0]);
      check(box && slider && combo, `the check box, slider or combo box was not found:\n${found}`);
      await session.do(
        'gtk3-widget-factory',
        `MATCH (c {id:"${box}"}) SET c.pressed = true; MATCH (s {id:"${slider}"}) SET s.value = "75"; ` +
          // A closed pop-up shows no items, as on screen: open it, then choose.
          `MATCH (p {id:"${combo}"}) SET p.pressed = true; ` +
          `MATCH (p {id:"${combo}"})-[:CHILD*1..2]->(m:MenuItem {name:"Right"}) SET m.pressed = true`,
      );
      // Read back by a session of its own, after a fresh walk of the application.
      await world.closeSession(session);
      const reader = await connect();
      const back = await reader.do(
        'gtk3-widget-factory',
        `CALL ui.refresh(); MATCH (n) WHERE n.id IN ["${box}", "${slider}", "${combo}"] RETURN n.id, n.value`,
      );
      const values = Object.fromEntries(rowsOf(back, 2).map((row) => [row['n.id'], row['n.value']]));
      const wanted = { [box]: '1', [slider]: '75', [combo]: 'Right' };
      const wrong = Object.keys(wanted).filter((id) => values[id] !== wanted[id]);
      check(wrong.length === 0, `read back ${JSON.stringify(values)}, wanted ${JSON.stringify(wanted)}`);
    },
  },
  {
    name: 'two-sessions-two-apps',
    async run({ session, connect }) {
      const other = await connect();
      // The slow call holds one application; the other application answers meanwhile.
      const order = [];
      const slow = session.do('gnome-calculator', 'CALL ui.wait(1.5); MATCH (t:TextArea) RETURN count(t) AS areas').then((t) => {
        order.push('slow');
        return t;
      });
      const quick = other.do(FORM, 'MATCH (c:CheckBox) RETURN c.name').then((t) => {
        order.push('quick');
        return t;
      });
      const [slowText, quickText] = await Promise.all([slow, quick]);
      check(rowsOf(slowText, 2).length === 1 && rowsOf(quickText, 1).length >= 2, `a call failed:\n${slowText}\n${quickText}`);
      check(order[0] === 'quick', `the call on ${FORM} waited for the one on gnome-calculator: ${order.join(', ')}`);
    },
  },
  {
    name: 'screenshot-image',
    core: true,
    async run({ session }) {
      const result = await session.call('gtk3-widget-factory', 'CALL ui.screenshot()');
      const [text, image] = result.content;
      check(!result.isError && text?.type === 'text' && /^\(image \d+x\d+px/m.test(text.text), `no image line:\n${text?.text}`);
      check(image?.type === 'image' && /^image\/(png|jpeg)$/.test(image.mimeType), `no image item after the text: ${image?.type}`);
      const bytes = Buffer.from(image.data, 'base64');
      const png = bytes.subarray(0, 4).equals(Buffer.from([0x89, 0x50, 0x4e, 0x47]));
      const jpeg = bytes[0] === 0xff && bytes[1] === 0xd8;
      check(png || jpeg, `the image's data is neither PNG nor JPEG (${bytes.length} bytes)`);
      return { imageBytes: bytes.length };
    },
  },
  {
    name: 'statement-error',
    core: true,
    async run({ session }) {
      const broken = await session.call('gtk3-widget-factory', 'MATCH (b:Button RETURN b');
      const text = broken.content[0]?.text ?? '';
      check(broken.isError === true && /^retry: /m.test(text), `a syntax error is no tool error with a retry hint:\n${text}`);
      const appless = await session.call(null, 'MATCH (b:Button) RETURN b');
      check(appless.isError === true && /Pass app on every call/.test(appless.content[0]?.text), 'a call without app was not refused');
      // The session goes on after its errors.
      const text2 = await session.do('gtk3-widget-factory', 'MATCH (c:CheckBox) RETURN count(c) AS boxes');
      check(Number(rowsOf(text2, 1)[0]?.boxes) > 0, `no check boxes read after the errors:\n${text2}`);
    },
  },
  {
    name: 'two-sessions-one-lease',
    core: true,
    async run({ session, connect, world }) {
      const second = await connect();
      await session.do(FORM, 'MATCH (t:TextField) SET t.value = "first agent"');
      // The first session keeps its lease for a grace after its call; the
      // second waits until the first goes away.
      const events = [];
      const waiting = second.do(FORM, 'MATCH (t:TextField) RETURN t.value').then((text) => {
        events.push({ what: 'second answered', at: performance.now() });
        return text;
      });
      await new Promise((resolve) => setTimeout(resolve, 1000));
      events.push({ what: 'first closed', at: performance.now() });
      await world.closeSession(session);
      const text = await waiting;
      check(events[0].what === 'first closed', `the second session did not wait for the first's lease: ${events.map((e) => e.what).join(', ')}`);
      check(rowsOf(text, 1)[0]?.['t.value'] === 'first agent', `the second session read:\n${text}`);
      return { waitedMs: Math.round(events[1].at - events[0].at) };
    },
  },
  {
    name: 'http-refusals',
    http: true,
    async run({ world }) {
      const initialize = JSON.stringify({
        jsonrpc: '2.0',
        id: 1,
        method: 'initialize',
        params: { protocolVersion: '2025-11-25', capabilities: {}, clientInfo: { name: 'probe', version: '1' } },
      });
      const accept = { accept: 'application/json, text/event-stream' };
      const cases = [
        ['no token', {}, 401],
        ['a wrong token', { authorization: `Bearer ${world.token}x` }, 401],
        ['a foreign origin', { authorization: `Bearer ${world.token}`, origin: 'http://attacker.example' }, 403],
        ['the token', { authorization: `Bearer ${world.token}` }, 200],
      ];
      const before = world.daemonSessions();
      for (const [name, headers, status] of cases) {
        const response = await world.post({ ...accept, ...headers }, initialize);
        await response.body?.cancel();
        check(response.status === status, `${name}: ${response.status}, not ${status}`);
        if (status === 200) {
          const end = await fetch(world.url, {
            method: 'DELETE',
            headers: { authorization: `Bearer ${world.token}`, 'mcp-session-id': response.headers.get('mcp-session-id') },
          });
          check(end.status === 204, `DELETE of the session: ${end.status}`);
        }
      }
      check(world.daemonSessions() <= before, 'a refused request left a session in the daemon');
    },
  },
  {
    name: 'http-vanishing-client',
    http: true,
    async run({ session, connect, world }) {
      const other = await connect();
      // The first client goes away while its call runs; the second wants the same application.
      const abandoned = session.do(FORM, 'CALL ui.wait(3); MATCH (t:TextField) RETURN t.value').catch((e) => e);
      await new Promise((resolve) => setTimeout(resolve, 500));
      world.sessions.delete(session);
      await session.vanish();
      check((await abandoned) instanceof Error, 'the abandoned call still answered its client');
      const text = await other.do(FORM, 'MATCH (t:TextField) RETURN t.value');
      check(rowsOf(text, 1).length > 0, `the second client read nothing:\n${text}`);
      // The vanished client's session on the daemon ends with its call, and with it its lease.
      let sessions = world.daemonSessions();
      for (let tries = 0; tries < 100 && sessions > 1; ++tries) {
        await new Promise((resolve) => setTimeout(resolve, 100));
        sessions = world.daemonSessions();
      }
      check(sessions === 1, `the daemon still has ${sessions} MCP sessions, not the second client's alone`);
    },
  },
  ...BROWSERS.flatMap(webTasks),
];

/** Going to a page as a person does: its address typed into the bar, then a wait for its heading. */
function goTo(browser, url, heading) {
  return (
    `MATCH ${browser.bar} SET a.value = ${quoted(url)}; CALL ui.key("return"); ` +
    `CALL ui.wait_for("MATCH (h:Heading {name:${JSON.stringify(heading).replaceAll('"', '\\"')}}) RETURN h.id", 10000)`
  );
}

/** A task with a server of its own for the length of the task. */
function withPages(run) {
  return async (context) => {
    const pages = await servePages();
    try {
      return await run({ ...context, pages });
    } finally {
      await pages.close();
    }
  };
}

// Pages in each browser, started by the world with their accessibility on.
function webTasks(browser) {
  return [
    {
      name: `web-form-sent-${browser.key}`,
      browser: true,
      x11: true,
      run: withPages(async ({ session, pages }) => {
        const opened = await session.do(browser.app, goTo(browser, pages.url('form.html'), 'Order a shirt'));
        check(rowsOf(opened, 3).length === 1, `the form did not load:\n${opened}`);
        const sent = await session.do(
          browser.app,
          [
            'MATCH (f:TextField {name:"Name"}) SET f.value = "Ada Lovelace"',
            'MATCH (s:PopUpButton {name:"Size"}) SET s.value = "Large"',
            'MATCH (q:Incrementor {name:"Quantity"}) SET q.value = 3',
            press('CheckBox', 'Gift wrap'),
            press('Button', 'Send order'),
          ].join('; '),
        );
        check(sent.includes('Order received'), `the report does not show the page the form loaded:\n${sent}`);
        const received = pages.requests.find((url) => url.startsWith('/received.html?'));
        check(received, `the server received no order: ${pages.requests.join(', ')}`);
        const fields = Object.fromEntries(new URL(received, 'http://127.0.0.1').searchParams);
        const wanted = { name: 'Ada Lovelace', size: 'Large', qty: '3', gift: 'on' };
        for (const [key, value] of Object.entries(wanted))
          check(fields[key] === value, `the server received ${key}=${fields[key]}, not ${value}: ${received}`);
      }),
    },
    {
      name: `web-link-followed-${browser.key}`,
      browser: true,
      x11: true,
      run: withPages(async ({ session, pages }) => {
        await session.do(browser.app, goTo(browser, pages.url('form.html'), 'Order a shirt'));
        const followed = await session.do(browser.app, `${press('Link', 'Next page')}; MATCH (h:Heading) RETURN h.name`);
        check(pages.requests.includes('/next.html'), `the server was not asked for the next page: ${pages.requests}`);
        const headings = rowsOf(followed, 2).map((row) => row['h.name']);
        check(headings.join() === 'The next page', `the page reads ${headings}:\n${followed}`);
      }),
    },
    {
      name: `web-long-page-value-${browser.key}`,
      browser: true,
      x11: true,
      run: withPages(async ({ session, pages }) => {
        await session.do(browser.app, goTo(browser, pages.url('long.html'), 'Price list'));
        // Firefox builds a long page's table after its heading: the agent
        // waits for it. The mirror holds the rows in view; the table's text
        // holds them all.
        const table = await session.do(
          browser.app,
          'CALL ui.wait_for("MATCH (t:Table) RETURN t.id", 10000); MATCH (t:Table) RETURN t.id',
        );
        const id = rowsOf(table, 2)[0]?.['t.id'];
        check(id, `no table on the page:\n${table}`);
        const read = await session.do(browser.app, `CALL ui.read(${quoted(id)})`);
        check(read.includes(`Item 900\\n${priceOf(900)}\\n`), `item 900's price is not in the table's text:\n${read.slice(0, 400)}`);
      }),
    },
  ];
}
