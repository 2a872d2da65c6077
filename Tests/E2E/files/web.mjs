const parts = [];
try { const { instance } = await WebAssembly.instantiateStreaming(fetch('answer.wasm'));
  parts.push('wasm ' + instance.exports.answer()); } catch (e) { parts.push('wasm failed'); }
const faces = await document.fonts.load('16px T').catch(() => []);
parts.push('font ' + (faces.length > 0 ? 'loaded' : 'failed'));
document.getElementById('out').textContent = parts.join(', ');
