/* Stopping the document's scripts at the request's time budget.
 *
 * MuPDF runs scripts with mujs, which has no hook for interrupting a running
 * script: a loop that calls nothing ("while (true) {}") runs through the
 * interpreter's instruction loop without leaving it. Until this build holds
 * a way to stop such a loop, every script counts as one that cannot be
 * stopped and the form is filled in without scripts. */

int quirelle_scripts_can_be_stopped(void) {
    return 0;
}

unsigned long quirelle_scripts_stopped(void) {
    return 0;
}
