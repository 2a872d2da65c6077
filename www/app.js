// A classic script: it records that it ran, and once the page has loaded it
// checks that the stylesheet and the image arrived too.
function mark(id, text) {
  var item = document.getElementById(id);
  item.textContent = text;
  item.className = 'ok';
}

window.addEventListener('load', function () {
  mark('check-script', 'script: ran');
  var style = getComputedStyle(document.documentElement).getPropertyValue('--site-style').trim();
  if (style === 'loaded') mark('check-style', 'stylesheet: applied');
  var logo = document.getElementById('logo');
  if (logo.complete && logo.naturalWidth > 0) mark('check-image', 'image: loaded ' + logo.naturalWidth + 'px');
});
