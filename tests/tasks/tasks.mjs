// The tasks: each is what an agent would send through `do`, acting and
// checking in one call, followed by a check made outside Glimmerstrand: a
// file read back, an application's own saved state, the X server's windows.
import { existsSync, readdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { performance } from 'node:perf_hooks';

import { check, processEnded, rowsOf, TaskFailure } from './harness.mjs';

const FORM = 'form_app.py';

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

export const tasks = [
  {
    name: 'gtk3-calculator-sum',
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
        'CALL ui.key("escape"); CALL ui.type("12+34"); CALL ui.key("return"); MATCH (t:TextArea) WHERE t.value <> "" RETURN t.value',
      );
      const shown = rowsOf(text, 4).map((row) => row['t.value']);
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
    name: 'two-sessions-one-lease',
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
];
