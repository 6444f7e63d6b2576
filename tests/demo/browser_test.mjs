// Drives segdemo's page in Debian's chromium as a user would: mouse drags,
// clicks, keys and the file picker, and checks the masks the server then
// serves.
//
//   node browser_test.mjs SEGDEMO SEGCUT PHOTO_DIR OUT_DIR
//
// Exits 77 (skipped) when the photo set or chromium is absent. Screenshots go
// to OUT_DIR.
import { spawn, execFileSync } from "node:child_process";
import { existsSync, mkdirSync, readFileSync } from "node:fs";
import { strict as assert } from "node:assert";
import { chromium } from "playwright-core";

const [segdemo, segcut, photoDir, outDir] = process.argv.slice(2);
const browserPath = "/usr/bin/chromium";
const skip = (why) => { console.log("skipped: " + why); process.exit(77); };
if (!existsSync(photoDir + "/images/book.jpg")) skip("photo set not found at " + photoDir);
if (!existsSync(browserPath)) skip(browserPath + " not installed");
mkdirSync(outDir, { recursive: true });

const book = photoDir + "/images/book.jpg";
const bookRect = readFileSync(photoDir + "/boxes/book.txt", "utf8").trim().split(/\s+/).map(Number);
const started = Date.now();
let steps = 0;
const step = (text) => {
  ++steps;
  console.log("- " + text + " (" + ((Date.now() - started) / 1000).toFixed(1) + " s so far)");
};

// Starts segdemo on a free port; resolves with its address.
function startServer() {
  const server = spawn(segdemo, ["--image", book, "--port", "0"], { stdio: ["ignore", "pipe", "inherit"] });
  const address = new Promise((resolve, reject) => {
    let out = "";
    server.stdout.on("data", (d) => {
      out += d;
      const m = out.match(/http:\/\/127\.0\.0\.1:(\d+)\//);
      if (m) resolve(m[0]);
    });
    server.on("exit", (code) => reject(new Error("segdemo exited with " + code)));
    setTimeout(() => reject(new Error("segdemo did not start in 20 s")), 20000).unref();
  });
  return { server, address };
}

// Decodes a mask PNG in the browser (a server path, or base64 bytes) and
// sums it up there: size, a hash of the grey values, object pixels (above
// 127) in all and inside the box [x0, y0, x1, y1].
async function mask(page, source, box = [0, 0, -1, -1]) {
  return page.evaluate(async ([src, [x0, y0, x1, y1]]) => {
    const blob = src.startsWith("/") ? await (await fetch(src, { cache: "no-store" })).blob()
      : new Blob([Uint8Array.from(atob(src), (c) => c.charCodeAt(0))], { type: "image/png" });
    const bitmap = await createImageBitmap(blob, { colorSpaceConversion: "none", premultiplyAlpha: "none" });
    const g = new OffscreenCanvas(bitmap.width, bitmap.height).getContext("2d");
    g.drawImage(bitmap, 0, 0);
    const rgba = g.getImageData(0, 0, bitmap.width, bitmap.height).data;
    let hash = 2166136261, count = 0, inBox = 0;
    for (let i = 0, n = bitmap.width * bitmap.height; i < n; ++i) {
      const v = rgba[4 * i];
      hash = Math.imul(hash ^ v, 16777619) >>> 0;
      if (v > 127) {
        ++count;
        const x = i % bitmap.width, y = (i - x) / bitmap.width;
        if (x >= x0 && x <= x1 && y >= y0 && y <= y1) ++inBox;
      }
    }
    return { width: bitmap.width, height: bitmap.height, hash, count, inBox };
  }, [source, box]);
}
const sameMask = (a, b) => a.width === b.width && a.height === b.height && a.hash === b.hash && a.count === b.count;

// Mouse position of photo pixel (x, y) on the page's canvas.
async function client(page, x, y) {
  const box = await page.locator("#view").boundingBox();
  const size = await page.evaluate(() => [document.getElementById("view").width, document.getElementById("view").height]);
  return [box.x + (x + 0.5) * box.width / size[0], box.y + (y + 0.5) * box.height / size[1]];
}

async function drag(page, points) {
  const [x0, y0] = await client(page, ...points[0]);
  await page.mouse.move(x0, y0);
  await page.mouse.down();
  for (const p of points.slice(1)) {
    const [x, y] = await client(page, ...p);
    await page.mouse.move(x, y, { steps: 8 });
  }
  await page.mouse.up();
}

// Waits until the page has finished one more edit; returns how it ended.
async function edited(page, before, timeout = 60000) {
  await page.waitForFunction((n) => Number(document.body.dataset.edits) > n && document.body.dataset.busy === "false",
                             before, { timeout });
  return page.evaluate(() => ({ last: document.body.dataset.last, message: document.getElementById("message").textContent }));
}
const editCount = (page) => page.evaluate(() => Number(document.body.dataset.edits));
// Whether the undo and redo buttons are disabled.
const historyButtons = (page) => Promise.all(["#undo", "#redo"].map((id) => page.locator(id).isDisabled()));
const viewWidth = (page) => page.evaluate(() => document.getElementById("view").width);

// A 4000x3000 JPEG of the book photo, enlarged by the browser.
async function enlargedBook(page) {
  const base64 = await page.evaluate(async (src) => {
    const bytes = Uint8Array.from(atob(src), (c) => c.charCodeAt(0));
    const bitmap = await createImageBitmap(new Blob([bytes], { type: "image/jpeg" }));
    const c = new OffscreenCanvas(4000, 3000);
    c.getContext("2d").drawImage(bitmap, 0, 0, 4000, 3000);
    const out = new Uint8Array(await (await c.convertToBlob({ type: "image/jpeg", quality: 0.92 })).arrayBuffer());
    let s = "";
    for (let i = 0; i < out.length; i += 0x8000) s += String.fromCharCode(...out.subarray(i, i + 0x8000));
    return btoa(s);
  }, readFileSync(book).toString("base64"));
  return Buffer.from(base64, "base64");
}

const { server, address } = startServer();
let browser;
try {
  const url = await address;
  browser = await chromium.launch({ executablePath: browserPath, headless: true, args: ["--no-sandbox", "--disable-dev-shm-usage"], timeout: 60000 });
  const page = await browser.newPage({ viewport: { width: 1000, height: 720 } });
  page.setDefaultTimeout(60000);
  await page.goto(url);
  await page.waitForFunction(() => document.getElementById("message").textContent.startsWith("Photo 640"));

  const [x1, y1, x2, y2] = bookRect;
  // The remove stroke's band.
  const radius = 8;
  const [sx0, sx1, sy] = [Math.round(x1 + (x2 - x1) * 0.3), Math.round(x1 + (x2 - x1) * 0.7), Math.round((y1 + y2) / 2)];
  const band = [sx0, sy - radius, sx1, sy + radius];

  step("a dragged rectangle gives segcut's mask for the same rectangle");
  await drag(page, [[x1, y1], [x2, y2]]);
  let result = await edited(page, 0);
  assert.equal(result.last, "done", result.message);
  execFileSync(segcut, ["--image", book, "--rect", x1, y1, x2, y2, "--out", outDir + "/segcut_book"].map(String),
               { stdio: "ignore" });
  const rectMask = await mask(page, "/api/mask.png", band);
  const reference = await mask(page, readFileSync(outDir + "/segcut_book_mask.png").toString("base64"));
  assert.ok(reference.count > 1000, "segcut found no object");
  assert.ok(sameMask(rectMask, reference), "the page's mask differs from segcut's");

  step("a remove stroke (radius set with [ and ]) takes pixels under it out of the mask");
  await page.keyboard.press("e");
  for (let i = 0; i < 400 && Number(await page.locator("#radius").inputValue()) !== radius; ++i)
    await page.keyboard.press(Number(await page.locator("#radius").inputValue()) < radius ? "]" : "[");
  await drag(page, [[sx0, sy], [sx1, sy]]);
  result = await edited(page, 1);
  assert.equal(result.last, "done", result.message);
  assert.ok(/remove: [\d.]+ ms/.test(result.message), "no edit time shown");
  const strokeMask = await mask(page, "/api/mask.png", band);
  assert.ok(rectMask.inBox > 0, "the stroke should cross the object");
  assert.ok(strokeMask.inBox < rectMask.inBox / 2, "pixels under the remove stroke stay in the mask");

  step("Ctrl+Z brings the rectangle's mask back, the redo button the stroke's");
  assert.deepEqual(await historyButtons(page), [false, true]);
  await page.keyboard.press("Control+z");
  result = await edited(page, 2);
  assert.equal(result.last, "done", result.message);
  assert.ok(sameMask(await mask(page, "/api/mask.png"), rectMask), "undo did not restore the rectangle's mask");
  assert.deepEqual(await historyButtons(page), [true, false]);
  await page.locator("#redo").click();
  result = await edited(page, 3);
  assert.ok(sameMask(await mask(page, "/api/mask.png"), strokeMask), "redo did not restore the stroke's mask");

  step("a second photo opened with the file picker starts a new sequence");
  await page.locator("#file").setInputFiles(photoDir + "/images/teddy.jpg");
  await page.waitForFunction(() => document.getElementById("message").textContent.startsWith("Opened teddy.jpg"));
  const teddy = await page.evaluate(async () => (await fetch("/api/state")).json());
  assert.equal(await viewWidth(page), teddy.width);
  assert.equal(teddy.canUndo, false);
  assert.equal((await mask(page, "/api/mask.png")).count, 0, "a new photo starts with an empty mask");

  step("after a second tab opens another photo, the first learns so on its next edit");
  const tab = await browser.newPage({ viewport: { width: 1000, height: 720 } });
  await tab.goto(url);
  await tab.locator("#file").setInputFiles(book);
  await tab.waitForFunction(() => document.getElementById("message").textContent.startsWith("Opened book.jpg"));
  await tab.close();
  const count = await editCount(page);
  await drag(page, [[20, 20], [200, 200]]);
  result = await edited(page, count);
  assert.equal(result.message, "Another page opened a new photo; showing it now.");
  assert.equal(await viewWidth(page), 640);

  step("a live-wire loop (seed, fixed points, a click on the start) cuts the book out");
  await page.keyboard.press("w");
  for (const [x, y] of [[x1 + 10, y1 + 10], [x2 - 10, y1 + 10], [x2 - 10, y2 - 10], [x1 + 10, y2 - 10], [x1 + 11, y1 + 11]]) {
    const [cx, cy] = await client(page, x, y);
    await page.mouse.move(cx, cy, { steps: 4 });
    await page.waitForTimeout(300);  // the path follows the pointer
    await page.mouse.click(cx, cy);
  }
  result = await edited(page, count + 1);
  assert.equal(result.last, "done", result.message);
  assert.ok(/^loop: /.test(result.message), result.message);
  assert.ok((await mask(page, "/api/mask.png")).count > 0.2 * rectMask.count, "the loop cut out little");
  step("Cancel during an edit on a 12-megapixel photo leaves the mask and the history, or shows the finished edit");
  await page.keyboard.press("1");
  await page.locator("#file").setInputFiles({ name: "book12mp.jpg", mimeType: "image/jpeg", buffer: await enlargedBook(page) });
  await page.waitForFunction(() => document.getElementById("message").textContent.startsWith("Opened book12mp.jpg"),
                             null, { timeout: 120000 });
  await page.keyboard.press("r");
  let sawCancel = false;
  for (let attempt = 1; attempt <= 5 && !sawCancel; ++attempt) {
    const before = await mask(page, "/api/mask.png");
    const history = await historyButtons(page);
    const n = await editCount(page);
    await drag(page, [[368 + 20 * attempt, 150], [3862, 2868]]);
    await page.locator("#cancel:not([disabled])").click({ timeout: 5000 }).catch(() => {});
    result = await edited(page, n, 120000);
    const after = await mask(page, "/api/mask.png");
    if (result.last === "cancelled") {
      sawCancel = true;
      assert.ok(sameMask(after, before), "a cancelled edit changed the mask");
      assert.deepEqual(await historyButtons(page), history, "a cancelled edit changed the undo state");
      await page.screenshot({ path: outDir + "/segdemo_cancelled.png" });
    } else {
      assert.equal(result.last, "done", result.message);
      assert.ok(after.count > 0, "a finished edit shows its mask");
    }
    console.log("  attempt " + attempt + ": " + result.message);
  }
  assert.ok(sawCancel, "no attempt was cancelled");

  console.log("browser test: " + steps + " passed, 0 failed");
} finally {
  if (browser) await browser.close();
  server.kill("SIGTERM");
}
