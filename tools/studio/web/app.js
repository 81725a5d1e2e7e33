"use strict";
// Shows the server's design summary; the full page replaces this file.
fetch("/api/state").then((r) => r.json()).then((s) => {
  document.getElementById("summary").textContent = s.summary;
});
