// Modal dialogs: a heading, content, the actions a person can take, and a
// place for the error of the action that failed, right above the buttons.
//
// A dialog is a native <dialog> shown with showModal(), so the browser keeps
// the focus inside it and Escape closes it. Each action is an async function;
// while it runs the buttons are disabled, when it fails its message is shown
// in the dialog (which stays open), when it succeeds the dialog closes.

import { h, setMessage, uniqueId } from './dom.mjs';

let openCount = 0;

/** Whether a dialog is open (the page then leaves its content alone). */
export function dialogOpen() {
    return openCount > 0;
}

/**
 * Shows a dialog and answers, once it is closed, the label of the action that
 * succeeded (null when it was cancelled).
 *
 * options:
 *   title        the heading
 *   content      nodes shown under the heading, or a function ({run}) => nodes
 *                for content with buttons of its own (one per row of a list):
 *                run({label, run, from}) runs such an action as the dialog's
 *                own buttons do (from: the button, focused again on failure)
 *   actions      [{label, kind: 'primary'|'danger'|'secondary', run: async () => {}}];
 *                the first one is the form's submit action (Enter in a field)
 *   initialFocus an element of `content` to focus first (else the first field or action)
 *   onError      (error) => 'close' | 'show'; lets the page take over errors
 *                such as a lost session or favorites changed elsewhere
 *   returnFocus  () => void, called after the dialog has closed
 *   labelCancel  the text of the cancel button ("Cancel")
 */
export function showDialog({ title, content = [], actions = [], initialFocus, onError, returnFocus, labelCancel = 'Cancel', wide = false }) {
    return new Promise((resolve) => {
        const headingId = uniqueId('dialog-title');
        const errorId = uniqueId('dialog-error');
        const error = h('p', { class: 'error is-empty', id: errorId, role: 'alert' });
        let busy = false;
        let result = null;

        const buttons = actions.map((action, index) => h('button', {
            type: index === 0 ? 'submit' : 'button',
            class: `button ${action.kind === 'danger' ? 'button-danger' : action.kind === 'secondary' ? '' : 'button-primary'}`,
            onclick: index === 0 ? null : () => run(action),
        }, action.label));
        const cancel = h('button', { type: 'button', class: 'button', onclick: () => { if (!busy) close(); } }, labelCancel);

        const form = h('form', { class: 'dialog-form', novalidate: true },
            h('h2', { id: headingId, class: 'dialog-title' }, title),
            h('div', { class: 'dialog-content' }, typeof content === 'function' ? content({ run }) : content),
            error,
            h('div', { class: 'dialog-actions' }, buttons, cancel));
        form.addEventListener('submit', (event) => {
            event.preventDefault();
            if (actions.length) run(actions[0]);
        });

        const dialog = h('dialog', { class: `dialog${wide ? ' dialog-wide' : ''}`, 'aria-labelledby': headingId, 'aria-describedby': errorId }, form);
        dialog.addEventListener('cancel', (event) => {
            if (busy) event.preventDefault();
        });
        dialog.addEventListener('close', () => {
            dialog.remove();
            openCount -= 1;
            resolve(result);
            if (returnFocus) returnFocus();
        });

        function close() {
            if (dialog.open) dialog.close();
        }

        async function run(action) {
            if (busy) return;
            busy = true;
            setMessage(error, '');
            // Every button of the form waits, the content's own too; those
            // disabled before stay so afterwards.
            const enabled = [...form.querySelectorAll('button')].filter((button) => !button.disabled);
            for (const button of enabled) button.disabled = true;
            dialog.setAttribute('aria-busy', 'true');
            try {
                await action.run();
                result = action.label;
                busy = false;
                close();
            } catch (failure) {
                busy = false;
                const handling = onError ? onError(failure) : 'show';
                if (handling === 'close') {
                    close();
                    return;
                }
                setMessage(error, failure?.message || 'This could not be done.');
                for (const button of enabled) button.disabled = false;
                dialog.removeAttribute('aria-busy');
                const from = action.from?.isConnected ? action.from : null;
                (form.querySelector('[aria-invalid="true"]') ?? from ?? buttons[0] ?? cancel).focus();
            }
        }

        document.body.append(dialog);
        openCount += 1;
        dialog.showModal();
        const first = initialFocus ?? form.querySelector('input:not([type=hidden]):not(:disabled), select, textarea') ?? buttons[0] ?? cancel;
        first.focus();
        if (first instanceof HTMLInputElement && first.type === 'text') first.select();
    });
}
