<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Lumora::AboutBox</name>
    <message>
        <source>About Lumora</source>
        <translation>Über Lumora</translation>
    </message>
    <message>
        <source>Lumora</source>
        <translation>Lumora</translation>
    </message>
    <message>
        <source>Lumora %1</source>
        <translation>Lumora %1</translation>
    </message>
    <message>
        <source>Brightness and standby for every display on the desk.</source>
        <translation>Helligkeit und Standby für jeden Bildschirm auf dem Schreibtisch.</translation>
    </message>
    <message>
        <source>Free software under the GNU General Public License, version 3 or any later version. It comes with no warranty.</source>
        <translation>Freie Software unter der GNU General Public License, Version 3 oder jeder späteren Version. Ohne jede Gewährleistung.</translation>
    </message>
</context>
<context>
    <name>Lumora::AppDelegate</name>
    <message>
        <source>lumora: no desktop session here (neither DISPLAY nor WAYLAND_DISPLAY is set), so there is no tray to sit in.
The probe works anywhere: LUMORA_PROBE=1 lumora</source>
        <translation>lumora: Hier läuft keine Desktop-Sitzung (weder DISPLAY noch WAYLAND_DISPLAY ist gesetzt), also gibt es keinen Infobereich für Lumora.
Die Abfrage funktioniert überall: LUMORA_PROBE=1 lumora</translation>
    </message>
    <message>
        <source>lumora: cannot reach the display server at %1=%2: it is not running, or it does not let Lumora in.</source>
        <translation>lumora: Der Anzeigeserver unter %1=%2 ist nicht erreichbar: Er läuft nicht, oder er lässt Lumora nicht zu.</translation>
    </message>
    <message>
        <source>lumora: Lumora is already running in this session; its panel opens from its tray icon.</source>
        <translation>lumora: Lumora läuft in dieser Sitzung bereits; sein Bedienfeld öffnet sich über sein Symbol im Infobereich.</translation>
    </message>
    <message>
        <source>lumora: this desktop has no system tray, so Lumora shows its panel as a window. Start Lumora again to reopen it.</source>
        <translation>lumora: Diese Arbeitsumgebung hat keinen Infobereich, daher zeigt Lumora sein Bedienfeld als Fenster. Starten Sie Lumora erneut, um es wieder zu öffnen.</translation>
    </message>
    <message>
        <source>Lumora — external monitor brightness</source>
        <translation>Lumora — Helligkeit externer Monitore</translation>
    </message>
    <message>
        <source>About Lumora</source>
        <translation>Über Lumora</translation>
    </message>
    <message>
        <source>Check for Updates…</source>
        <translation>Nach Aktualisierungen suchen…</translation>
    </message>
    <message>
        <source>Quit Lumora</source>
        <translation>Lumora beenden</translation>
    </message>
    <message>
        <source>lumora: this desktop has no system tray, so Lumora waits in the background. Start Lumora to open its panel.</source>
        <translation>lumora: Diese Arbeitsumgebung hat keinen Infobereich, daher wartet Lumora im Hintergrund. Starten Sie Lumora, um sein Bedienfeld zu öffnen.</translation>
    </message>
    <message>
        <source>Usage: lumora [--background]
Brightness and standby for every display on the desk, from a panel under a tray icon.

  --background  start without opening a window (on a desktop without a tray the panel
                opens when Lumora is started again)
  --help        show this text
  --version     show the version

LUMORA_PROBE=1 lumora lists every display instead; see lumora(1).</source>
        <translation>Aufruf: lumora [--background]
Helligkeit und Bereitschaft für jeden Bildschirm am Arbeitsplatz, über ein Bedienfeld unter einem Symbol im Infobereich.

  --background  ohne Fenster starten (ohne Infobereich öffnet sich das Bedienfeld,
                wenn Lumora erneut gestartet wird)
  --help        diesen Text anzeigen
  --version     die Version anzeigen

LUMORA_PROBE=1 lumora listet stattdessen alle Bildschirme auf; siehe lumora(1).</translation>
    </message>
    <message>
        <source>lumora: unknown argument &apos;%1&apos;. Try &apos;lumora --help&apos;.</source>
        <translation>lumora: unbekanntes Argument &apos;%1&apos;. Siehe &apos;lumora --help&apos;.</translation>
    </message>
</context>
<context>
    <name>Lumora::DisplayRow</name>
    <message>
        <source>Dimmer</source>
        <translation>Dunkler</translation>
    </message>
    <message>
        <source>Brightness</source>
        <translation>Helligkeit</translation>
    </message>
    <message>
        <source>Brighter</source>
        <translation>Heller</translation>
    </message>
    <message>
        <source>Turn display off (DDC standby)</source>
        <translation>Bildschirm ausschalten (DDC-Standby)</translation>
    </message>
    <message>
        <source>Turn display on</source>
        <translation>Bildschirm einschalten</translation>
    </message>
    <message>
        <source>Brightness of %1</source>
        <translation>Helligkeit von %1</translation>
    </message>
    <message>
        <source>Turn %1 off</source>
        <translation>%1 ausschalten</translation>
    </message>
    <message>
        <source>Turn %1 on</source>
        <translation>%1 einschalten</translation>
    </message>
</context>
<context>
    <name>Lumora::HotkeySettings</name>
    <message>
        <source>Use F1/F2 for external brightness</source>
        <translation>F1/F2 für die Helligkeit externer Bildschirme</translation>
    </message>
    <message>
        <source>Remap the F1/F2 brightness keys to the external display you&apos;re working on. ⌥F1 blacks it out, ⌥F2 wakes it to full.</source>
        <translation>Die Helligkeitstasten F1/F2 wirken auf den externen Bildschirm, an dem Sie gerade arbeiten. ⌥F1 schaltet ihn dunkel, ⌥F2 weckt ihn mit voller Helligkeit.</translation>
    </message>
    <message>
        <source>Needs Accessibility permission</source>
        <translation>Braucht die Berechtigung für Bedienungshilfen</translation>
    </message>
    <message>
        <source>Open Accessibility Settings…</source>
        <translation>Einstellungen für Bedienungshilfen öffnen…</translation>
    </message>
    <message>
        <source>Grant Accessibility so Lumora can see the F1/F2 keys</source>
        <translation>Erteilen Sie die Berechtigung, damit Lumora die Tasten F1/F2 sieht</translation>
    </message>
    <message>
        <source>GNOME shows Lumora the window you work in only through Lumora&apos;s GNOME Shell extension. Turn it on with &quot;gnome-extensions enable lumora@lumora.org&quot; (after installing Lumora, log out and in once first); until then the keys act on the first display.</source>
        <translation>GNOME zeigt Lumora das Fenster, in dem Sie arbeiten, nur über Lumoras GNOME-Shell-Erweiterung. Schalten Sie sie mit &quot;gnome-extensions enable lumora@lumora.org&quot; ein (nach der Installation von Lumora einmal ab- und wieder anmelden); bis dahin wirken die Tasten auf den ersten Bildschirm.</translation>
    </message>
</context>
<context>
    <name>Lumora::OsdWindow</name>
    <message>
        <source>%1: brightness %2 %</source>
        <translation>%1: Helligkeit %2 %</translation>
    </message>
</context>
<context>
    <name>Lumora::PopoverPanel</name>
    <message>
        <source>Lumora</source>
        <translation>Lumora</translation>
    </message>
</context>
<context>
    <name>Lumora::PopoverView</name>
    <message>
        <source>Lumora</source>
        <translation>Lumora</translation>
    </message>
    <message>
        <source>No external DDC displays found.</source>
        <translation>Keine externen DDC-Bildschirme gefunden.</translation>
    </message>
    <message>
        <source>Refresh displays</source>
        <translation>Bildschirme neu einlesen</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Quit Lumora</source>
        <translation>Lumora beenden</translation>
    </message>
</context>
</TS>
