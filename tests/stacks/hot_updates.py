"""A page whose source file changes while Chromium shows it."""

from wire import until

UPDATE_TIME = 60  # seconds


def write_text(path, text):
    path.write_text(f'export const text = "{text}";\n')


def open_page(browser, access, path):
    """The page, with a mark that a reload would remove."""
    write_text(path, "first text")
    page = browser.open(access.url)
    page.wait_for_text("first text")
    page.evaluate("window.mark = 'kept'")
    return page


def expect_hot_update(browser, access, path):
    page = open_page(browser, access, path)
    number = 0

    def update_is_shown():
        """Writes the file again and again, because the page may not listen yet when it shows its first text."""
        nonlocal number
        number += 1
        write_text(path, f"text {number}")
        return waits_for(page, f"text {number}", 2)

    until(update_is_shown, f"an update of {access.url}", UPDATE_TIME)
    assert page.evaluate("window.mark") == "kept"


def waits_for(page, text, deadline):
    try:
        return until(lambda: text in page.text(), text, deadline)
    except AssertionError:
        return False


def expect_none(browser, access, path, updates):
    """Checks that the server makes an update and the page does not show it. `updates` counts the server's updates."""
    page = open_page(browser, access, path)
    before = updates()
    write_text(path, "second text")
    until(lambda: updates() > before, "the server has made an update", UPDATE_TIME)
    assert not waits_for(page, "second text", 1)
