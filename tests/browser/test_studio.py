#!/usr/bin/python3
"""The studio page in a real browser (headless Chromium) against a real `sorn-hp studio`.

Usage: test_studio.py SORN_HP ARTIFACT_DIR
Checks what a person using the page depends on: it loads cleanly, a drag edits the design and
the table and undo takes it back, a refused value says why, an import shows progress and ends
with the command's own figures, a rendering and an export are the commands' own bytes, and the
server refuses requests that do not come from its own page. Keeps a screenshot in ARTIFACT_DIR.
Ends with the line "N passed, N failed".
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from studio_session import Browser, Studio, write_wav  # noqa: E402

from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.actions.action_builder import ActionBuilder  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402

TOOL = ARTIFACTS = None
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CORRECTION = os.path.join(ROOT, 'tools', 'doc', 'corrections', 'Sennheiser HD 650 GraphicEQ.txt')


def run_tool(*args):
    r = subprocess.run([TOOL, *args], capture_output=True, text=True, timeout=300)
    if r.returncode != 0:
        raise AssertionError(f'sorn-hp {" ".join(args)} failed: {r.stderr}')
    return r.stdout


class StudioPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix='studio-test-')
        cls.audio = os.path.join(cls.tmp.name, 'audio')
        os.mkdir(cls.audio)
        write_wav(os.path.join(cls.audio, 'programme.wav'), 1.5)
        cls.studio = Studio(TOOL, cls.audio)
        cls.browser = Browser()
        cls.start_tuning = cls.state()['tuning']

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        status, err = cls.studio.stop()
        cls.tmp.cleanup()
        # A clean stop, and nothing from the sanitizers when the tool is built with them.
        if status != 0 or 'Sanitizer' in err or 'runtime error' in err:
            raise AssertionError(f'studio ended with {status}: {err[-2000:]}')

    @classmethod
    def state(cls):
        status, _, body = cls.studio.http('GET', '/api/state')
        assert status == 200, body
        return json.loads(body)

    def setUp(self):
        # Each test starts from the same tuning with a fresh page and an empty history.
        status, _, body = self.studio.change('PUT', '/api/tuning', self.start_tuning)
        self.assertEqual(status, 200, body)
        self.browser.console_errors()  # what earlier tests left in the log
        self.browser.driver.get('about:blank')
        self.browser.open(self.studio.url)
        self.browser.js('sessionStorage.clear()')
        self.browser.driver.refresh()
        self.browser.wait("document.getElementById('status').textContent.startsWith('ready')")

    def tearDown(self):
        # No script error in any test (refused requests show up as network entries: those are the
        # status line's business, checked where they happen).
        self.assertEqual([e for e in self.browser.console_errors() if e.get('source') != 'network'], [])

    def table(self, group):
        cells = self.browser.driver.find_elements(By.CSS_SELECTOR, f'#{group}-table tbody input')
        values = [int(c.get_attribute('value')) for c in cells]
        return [values[i:i + 2] for i in range(0, len(values), 2)]

    def achieved(self):
        return self.browser.js('return studio.page.plot.data[1]')

    def test_page_loads_without_console_errors(self):
        b = self.browser
        self.assertEqual(b.console_errors(), [])
        # Every curve of the design is plotted, and the tables show the server's tuning.
        curve = self.state()['curve']
        self.assertEqual(self.achieved(), curve['achieved'])
        self.assertEqual(b.js('return studio.page.plot.data[2]'), curve['requested'])
        for g in ('lc', 'hp', 'ea'):
            self.assertEqual(self.table(g), self.start_tuning[g]['points'])
        # The readout follows the pointer: over a point it reads that point's frequency.
        freq = self.start_tuning['hp']['points'][4][0]
        p = b.js("return studio.markerClientXY('hp', 4)")
        ab = ActionBuilder(b.driver, duration=0)
        ab.pointer_action.move_to_location(round(p['x']), round(p['y']))
        ab.perform()
        text = b.wait("document.getElementById('readout').textContent.includes('achieved') && "
                      "document.getElementById('readout').textContent")
        self.assertAlmostEqual(int(text.split(' Hz')[0]), freq, delta=freq * 0.01)

    def test_drag_then_undo_and_redo(self):
        b = self.browser
        before_curve, before_table = self.achieved(), self.table('hp')
        b.drag_point('hp', 5, 6, -60)
        b.idle()
        b.wait("studio.page.past.length === 1")
        moved_curve, moved_table = self.achieved(), self.table('hp')
        self.assertNotEqual(moved_curve, before_curve)
        self.assertGreater(moved_table[5][1], before_table[5][1])  # dragged up: more gain
        self.assertEqual(moved_table, self.state()['tuning']['hp']['points'])
        self.assertEqual(moved_curve, self.state()['curve']['achieved'])

        keys = ActionChains(b.driver)
        keys.key_down(Keys.CONTROL).send_keys('z').key_up(Keys.CONTROL).perform()
        b.wait("studio.page.future.length === 1 && document.getElementById('status').textContent.startsWith('undone')")
        self.assertEqual(self.achieved(), before_curve)
        self.assertEqual(self.table('hp'), before_table)

        keys = ActionChains(b.driver)
        keys.key_down(Keys.CONTROL).key_down(Keys.SHIFT).send_keys('z').key_up(Keys.SHIFT).key_up(Keys.CONTROL).perform()
        b.wait("studio.page.past.length === 1 && document.getElementById('status').textContent.startsWith('redone')")
        self.assertEqual(self.achieved(), moved_curve)
        self.assertEqual(self.table('hp'), moved_table)

        # A reload keeps the tuning (the server holds it) and the history (the session holds it).
        b.driver.refresh()
        b.wait("document.getElementById('status').textContent.startsWith('ready')")
        self.assertEqual(self.table('hp'), moved_table)
        self.assertFalse(b.driver.find_element(By.ID, 'undo').get_attribute('disabled'))

    def test_table_edits(self):
        b = self.browser
        d = b.driver
        rev = self.state()['revision']
        cases = [  # (what is typed into ea point 3's dB cell, accepted, status line must show)
            ('5', True, 'ea point 3 dB 5'),
            ('99', False, '60 dB'),          # the server's reason, shown as it says it
            ('-61', False, '60 dB'),
        ]
        for typed, accepted, shown in cases:
            with self.subTest(typed=typed):
                cell = d.find_elements(By.CSS_SELECTOR, '#ea-table tbody input.gain')[2]
                before = self.table('ea')
                cell.send_keys(Keys.CONTROL, 'a')
                cell.send_keys(typed, Keys.TAB)
                b.wait(f"document.getElementById('status').textContent.includes({json.dumps(shown)})")
                err = 'error' in d.find_element(By.ID, 'status').get_attribute('class')
                self.assertEqual(err, not accepted)
                if accepted:
                    rev += 1
                    self.assertEqual(self.table('ea')[2][1], int(typed))
                else:
                    self.assertEqual(self.table('ea'), before)  # the refused value does not stay
                self.assertEqual(self.state()['revision'], rev)
        # From the keyboard on the plot: ] picks the next point, the up arrow raises it by 1 dB.
        over = d.find_element(By.CSS_SELECTOR, '.u-over')
        over.send_keys(']')
        sel = b.js('return studio.page.selected')
        point = f"studio.page.state.tuning.{sel['group']}.points[{sel['index']}]"
        gain = b.js(f'return {point}[1]')
        over.send_keys(Keys.ARROW_UP)
        b.wait(f"{point}[1] === {gain + 1}")
        # Removing a point leaves the table one shorter and frees a place for a new one.
        d.find_element(By.CSS_SELECTOR, '#lc-table tbody tr:nth-child(5) button').click()
        b.wait("studio.page.state.tuning.lc.points.length === 11")
        self.assertEqual(len(self.table('lc')), 11)
        d.find_element(By.ID, 'lc-add').click()
        b.wait("studio.page.state.tuning.lc.points.length === 12")
        self.assertEqual(self.table('lc'), self.state()['tuning']['lc']['points'])
        self.assertTrue(d.find_element(By.ID, 'lc-add').get_attribute('disabled'))
        # A switch is an edit like any other, and undo takes it back.
        d.find_element(By.ID, 'hp-enabled').click()
        b.wait("studio.page.state.tuning.hp.enabled === false")
        d.find_element(By.ID, 'undo').click()
        b.wait("studio.page.state.tuning.hp.enabled === true")

    def test_import_progress_and_figures(self):
        b = self.browser
        out = os.path.join(self.tmp.name, 'imported.json')
        printed = run_tool('import', CORRECTION, '-o', out, '-y')
        m = re.search(r'RMS ([\d.]+) dB, largest ([\d.]+) dB at (\d+) Hz', printed)
        offset = re.search(r'level offset\s+([+-][\d.]+) dB', printed).group(1)
        expected = f'RMS {m.group(1)} dB, largest {m.group(2)} dB at {m.group(3)} Hz, level offset {offset} dB'

        # Cancelled as soon as it shows: the tuning stays as it was.
        rev = self.state()['revision']
        b.driver.find_element(By.ID, 'import-file').send_keys(CORRECTION)
        b.wait("!document.getElementById('import-cancel').hidden")
        b.driver.find_element(By.ID, 'import-cancel').click()
        b.wait("document.getElementById('status').textContent.includes('cancelled')")
        self.assertEqual(self.state()['revision'], rev)
        self.assertEqual(b.driver.find_element(By.ID, 'import-figures').text, '')

        # Sample the progress bar while the fit runs.
        b.js("""window.seen = [];
                window.sampler = setInterval(() => { const p = document.getElementById('import-progress');
                  if (!p.hidden) seen.push(p.value); }, 10);""")
        b.driver.find_element(By.ID, 'import-file').send_keys(CORRECTION)
        b.wait("document.getElementById('import-figures').textContent !== ''", timeout=120)
        seen = b.js('clearInterval(window.sampler); return window.seen')
        self.assertEqual(b.driver.find_element(By.ID, 'import-figures').text, expected)
        self.assertTrue(any(0 < v < 1 for v in seen), f'no progress shown between start and end: {seen[:20]}')
        b.wait("studio.page.past.length === 1")  # applied as an edit, so undo covers it
        with open(out) as f:
            fitted = json.load(f)
        for g in ('lc', 'hp', 'ea'):
            self.assertEqual(self.table(g), fitted[g]['points'])
        self.assertIsNotNone(self.state()['curve']['target'])
        b.driver.save_screenshot(os.path.join(ARTIFACTS, 'studio-screenshot.png'))

    def test_render_matches_run_and_turns_stale(self):
        b = self.browser
        d = b.driver
        b.drag_point('ea', 3, 0, -40)  # not the built-in tuning
        b.idle()
        # The file goes up through the page; the --audio folder's file is listed beside it.
        d.find_element(By.ID, 'audio-file').send_keys(os.path.join(self.audio, 'programme.wav'))
        entry = b.wait("[...document.getElementById('audio-entry').options].map(o => o.value)"
                       ".find(v => v !== 'programme.wav' && v.includes('programme.wav'))")
        self.assertIn('programme.wav', b.js("return [...document.getElementById('audio-entry').options].map(o => o.value)"))
        for select, value in (('audio-entry', entry), ('device', 'bt-a2dp'), ('format', '16')):
            d.execute_script('const s = document.getElementById(arguments[0]); s.value = arguments[1];'
                             's.dispatchEvent(new Event("change"))', select, value)
        d.find_element(By.ID, 'render').click()
        b.wait("!document.getElementById('player').hidden", timeout=120)
        self.assertFalse(d.find_element(By.ID, 'stale').is_displayed())
        urls = b.js('return studio.listen.urls')

        tuning = os.path.join(self.tmp.name, 'render-tuning.json')
        status, _, body = self.studio.http('GET', '/api/export/tuning.json')
        self.assertEqual(status, 200)
        with open(tuning, 'wb') as f:
            f.write(body)
        expected = os.path.join(self.tmp.name, 'run.wav')
        run_tool('run', os.path.join(self.audio, 'programme.wav'), expected, '--tuning', tuning,
                 '--device', 'bt-a2dp', '--format', '16', '-y')
        status, _, processed = self.studio.http('GET', urls['processed'])
        self.assertEqual(status, 200)
        with open(expected, 'rb') as f:
            self.assertTrue(processed == f.read(), 'the rendering differs from sorn-hp run')

        # A/B keeps the position: switch while playing and read the position on both sides.
        d.find_element(By.ID, 'play').click()
        b.wait('studio.listen.playing')
        time.sleep(0.3)
        before = b.js('return studio.listen.ctx.currentTime')
        d.find_element(By.ID, 'ab').click()
        self.assertEqual(d.find_element(By.ID, 'ab').get_attribute('aria-pressed'), 'false')
        self.assertTrue(b.js('return studio.listen.playing && studio.listen.sources.length === 2'))
        self.assertGreaterEqual(b.js('return studio.listen.ctx.currentTime'), before)
        d.find_element(By.ID, 'play').click()

        # An edit makes the rendering stale.
        b.drag_point('ea', 3, 0, 30)
        b.idle()
        b.wait("!document.getElementById('stale').hidden")

    def test_export_matches_params(self):
        b = self.browser
        b.drag_point('lc', 2, 0, 40)
        b.idle()
        for name in ('params.bin', 'tuning.json'):
            path = os.path.join(b.downloads, name)
            if os.path.exists(path):
                os.remove(path)
        b.driver.find_element(By.ID, 'export-tuning').click()
        b.driver.find_element(By.ID, 'export-params').click()
        deadline = time.monotonic() + 30
        while not all(os.path.exists(os.path.join(b.downloads, n)) for n in ('params.bin', 'tuning.json')):
            self.assertLess(time.monotonic(), deadline, os.listdir(b.downloads))
            time.sleep(0.05)
        time.sleep(0.2)
        expected = os.path.join(self.tmp.name, 'params.bin')
        run_tool('params', os.path.join(b.downloads, 'tuning.json'), '-o', expected, '-y')
        with open(expected, 'rb') as f, open(os.path.join(b.downloads, 'params.bin'), 'rb') as g:
            self.assertEqual(g.read(), f.read())

    def test_foreign_host_and_origin_refused(self):
        s = self.studio
        own = f'http://127.0.0.1:{s.port}'
        tuning = json.dumps(self.start_tuning).encode()
        cases = [  # method, path, Host, Origin, status
            ('GET', '/', f'127.0.0.1:{s.port}', None, 200),
            ('GET', '/', f'localhost:{s.port}', None, 200),
            ('GET', '/', f'[::1]:{s.port}', None, 200),
            ('GET', '/', f'attacker.example:{s.port}', None, 403),
            ('GET', '/api/state', f'127.0.0.1:{s.port + 1}', None, 403),
            ('GET', '/api/export/params.bin', 'attacker.example', None, 403),
            ('PUT', '/api/tuning', f'127.0.0.1:{s.port}', own, 200),
            ('PUT', '/api/tuning', f'127.0.0.1:{s.port}', None, 403),
            ('PUT', '/api/tuning', f'127.0.0.1:{s.port}', 'http://attacker.example', 403),
            ('PUT', '/api/tuning', f'127.0.0.1:{s.port}', f'http://127.0.0.1:{s.port + 1}', 403),
            ('PUT', '/api/tuning', f'attacker.example:{s.port}', own, 403),
            ('POST', '/api/render', f'127.0.0.1:{s.port}', 'null', 403),
        ]
        for method, path, host, origin, expected in cases:
            with self.subTest(method=method, host=host, origin=origin):
                rev = self.state()['revision']
                status, headers, _ = s.http(method, path, tuning if method != 'GET' else None,
                                            {'Host': host, 'Origin': origin, 'Content-Type': 'application/json'})
                self.assertEqual(status, expected)
                self.assertFalse([h for h in headers if h.startswith('access-control-')])
                if expected == 403:
                    self.assertEqual(self.state()['revision'], rev)


def main():
    global TOOL, ARTIFACTS
    if len(sys.argv) != 3:
        print(__doc__)
        return 2
    TOOL, ARTIFACTS = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    os.makedirs(ARTIFACTS, exist_ok=True)
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(StudioPage)
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    failed = len(result.failures) + len(result.errors)
    print(f'{result.testsRun - failed} passed, {failed} failed')
    return 0 if failed == 0 and result.testsRun > 0 else 1


if __name__ == '__main__':
    sys.exit(main())
