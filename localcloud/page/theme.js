// Before the first paint: the theme that was chosen here, else the system's.
(function () {
  "use strict";
  var dark = matchMedia("(prefers-color-scheme: dark)");
  var choice = "system";
  try { choice = localStorage.getItem("theme") || "system"; } catch (error) { /* not allowed: not kept */ }
  function use() {
    var theme = choice === "system" ? (dark.matches ? "dark" : "light") : choice;
    document.documentElement.dataset.theme = theme;
    document.dispatchEvent(new Event("theme"));
  }
  window.theme = {
    get choice() { return choice; },
    choose: function (next) {
      choice = next;
      try { localStorage.setItem("theme", next); } catch (error) { /* as above */ }
      use();
    },
  };
  dark.addEventListener("change", use);
  use();
})();
