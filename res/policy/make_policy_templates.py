#!/usr/bin/env python3
"""Writes the Group Policy templates of Korvane beside this script:
korvane.admx and en-US, de-DE, fr-FR/korvane.adml.

Each policy sets the machine-wide place of one setting: a value named after
the setting in the product key under HKLM. The add-in reads a user's own
value first (the ribbon writes those), then this one, then its default. A
32-bit Outlook on 64-bit Windows reads the 32-bit registry, so every policy
is there twice: for 64-bit Outlook and for 32-bit Outlook (below
Wow6432Node). Standard library only; run it from anywhere."""
import os
from xml.sax.saxutils import escape, quoteattr

PRODUCT_KEY = r"Software\QUEMBROOK\Korvane Addin for Microsoft Outlook"
PLACES = [("", PRODUCT_KEY, "Outlook64"), ("_32", PRODUCT_KEY.replace("Software\\", "Software\\Wow6432Node\\", 1), "Outlook32")]

# name, kind, choices (enum values, or (min, max) for numbers)
SETTINGS = [
    ("Locked", "bool", None),
    ("Format", "enum", ["msg", "eml"]),
    ("IgnoreTargetEffectIfDroppedIntoOtherApplication", "bool", None),
    ("TextFormat", "enum", ["none", "table", "json"]),
    ("SaveOnBeginDrag", "bool", None),
    ("ExtractMailAddress", "bool", None),
    ("DecryptEnabled", "bool", None),
    ("DecryptWithRedemption", "bool", None),
    ("SaveWithRedemptionFormat", "number", (0, 2147483647)),
    ("TempFileReadOnly", "bool", None),
    ("CaptureClipboard", "bool", None),
    ("MaxFiles", "number", (1, 100000)),
    ("KeepTempFilesMinutes", "number", (2, 5256000)),
    ("Ribbon.Microsoft.Outlook.Explorer", "text", None),
]

TEXTS = {
    "en-US": {
        "Korvane": "Korvane Addin for Microsoft Outlook",
        "Outlook64": "64-bit Outlook",
        "Outlook32": "32-bit Outlook on 64-bit Windows",
        "Supported": "Korvane 1.0 and later",
        "Default": "Not configured: the built-in default applies ({default}). "
                   "A user's own choice (made on the Korvane tab) takes precedence over this policy.",
        "Locked": ("Switch off real files for drag and drop",
                   "Enabled: drags and copies out of Outlook are left as Outlook makes them; Korvane does not "
                   "save files. Disabled: Korvane saves the dragged mails and attachments as files.",
                   "false"),
        "Format": ("File format of dragged mails",
                   "The format in which dragged mails are saved: MSG (Outlook's own format, every property kept) "
                   "or EML (MIME, readable by any mail program).",
                   "msg", {"msg": "MSG (Outlook item)", "eml": "EML (MIME message)"}),
        "IgnoreTargetEffectIfDroppedIntoOtherApplication": (
            "A drop into another program always counts as a copy",
            "Enabled: whatever the target program answers, Outlook is told that the items were copied, so a "
            "mail is never deleted from the mailbox by a drop into another program. Disabled: the target's "
            "answer is passed on, so a move (Shift held) removes the mail from Outlook.",
            "true"),
        "TextFormat": ("Text given to the drop target",
                       "Besides the files, the drop target may receive a text describing the dragged items: none, "
                       "a table, or JSON.",
                       "none", {"none": "No text", "table": "Table", "json": "JSON"}),
        "SaveOnBeginDrag": ("Save files when the drag starts",
                            "Enabled: the files are written as soon as the drag starts, for targets that read them "
                            "before the drop. Disabled: they are written when the items are dropped (faster when a "
                            "drag is cancelled).",
                            "false"),
        "ExtractMailAddress": ("Bare addresses in EML headers",
                               "Enabled: the address headers of saved EML files are reduced to bare mail "
                               "addresses. Disabled: names and addresses are kept as Outlook writes them.",
                               "false"),
        "DecryptEnabled": ("Decrypt encrypted mails",
                           "Enabled: S/MIME-encrypted mails are saved decrypted, when the user's certificate "
                           "allows it. Disabled: they are saved as they are, still encrypted.",
                           "true"),
        "DecryptWithRedemption": ("Decrypt with Redemption",
                                  "Enabled: encrypted mails are decrypted with the Redemption library beside the "
                                  "add-in, with Outlook as the fallback. Disabled: Outlook decrypts them.",
                                  "false"),
        "SaveWithRedemptionFormat": ("Save EML files with Redemption",
                                     "The Redemption save format number used to write EML files with the "
                                     "Redemption library beside the add-in. Not configured or disabled: Redemption "
                                     "is not used for saving.",
                                     "-1: Redemption is not used", "Redemption save format"),
        "TempFileReadOnly": ("Make saved files read-only",
                             "Enabled: the files Korvane saves are marked read-only. Disabled: they are writable.",
                             "false"),
        "CaptureClipboard": ("Real files for copy and paste",
                             "Enabled: copying mails or attachments in Outlook (Ctrl+C) puts real files on the "
                             "clipboard as a drag does. Takes effect when Outlook starts. Disabled: the clipboard "
                             "gets what Outlook puts there.",
                             "false"),
        "MaxFiles": ("Most files per drag",
                     "The largest number of files saved for one drag; a larger drag gets no files. Read when "
                     "Outlook starts.",
                     "no limit", "Files"),
        "KeepTempFilesMinutes": ("Minutes to keep saved files",
                                 "Saved files older than this are deleted from the temporary folder. Read when "
                                 "Outlook starts.",
                                 "1440 minutes, one day", "Minutes"),
        "Ribbon.Microsoft.Outlook.Explorer": (
            "Korvane tab in the ribbon",
            "Whether Outlook's main window shows the Korvane tab, and its title. 1; shows the tab with its "
            "translated title; 2;Title shows it with the title after the semicolon; 0; (or any other text) hides "
            "the tab. Read when Outlook starts.",
            "what the installation wrote, usually 1;", "Ribbon info"),
        "Enabled": "Enabled", "Disabled": "Disabled",
    },
    "de-DE": {
        "Korvane": "Korvane Add-in für Microsoft Outlook",
        "Outlook64": "Outlook 64 Bit",
        "Outlook32": "Outlook 32 Bit unter Windows 64 Bit",
        "Supported": "Korvane 1.0 und neuer",
        "Default": "Nicht konfiguriert: es gilt die eingebaute Voreinstellung ({default}). "
                   "Die eigene Wahl eines Benutzers (auf der Registerkarte Korvane) hat Vorrang vor dieser Richtlinie.",
        "Locked": ("Echte Dateien beim Ziehen und Ablegen ausschalten",
                   "Aktiviert: Ziehen und Kopieren aus Outlook bleiben, wie Outlook sie macht; Korvane speichert "
                   "keine Dateien. Deaktiviert: Korvane speichert die gezogenen Mails und Anlagen als Dateien.",
                   "false"),
        "Format": ("Dateiformat gezogener Mails",
                   "Das Format, in dem gezogene Mails gespeichert werden: MSG (Outlooks eigenes Format, alle "
                   "Eigenschaften bleiben erhalten) oder EML (MIME, von jedem Mailprogramm lesbar).",
                   "msg", {"msg": "MSG (Outlook-Element)", "eml": "EML (MIME-Nachricht)"}),
        "IgnoreTargetEffectIfDroppedIntoOtherApplication": (
            "Ablegen in andere Programme zählt immer als Kopieren",
            "Aktiviert: was auch immer das Zielprogramm antwortet, Outlook erfährt, dass kopiert wurde; eine Mail "
            "wird durch Ablegen in ein anderes Programm nie aus dem Postfach gelöscht. Deaktiviert: die Antwort "
            "des Ziels wird weitergegeben, ein Verschieben (mit Umschalt) entfernt die Mail aus Outlook.",
            "true"),
        "TextFormat": ("Text für das Ablageziel",
                       "Neben den Dateien kann das Ablageziel einen Text über die gezogenen Elemente erhalten: "
                       "keinen, eine Tabelle oder JSON.",
                       "none", {"none": "Kein Text", "table": "Tabelle", "json": "JSON"}),
        "SaveOnBeginDrag": ("Dateien schon beim Beginn des Ziehens speichern",
                            "Aktiviert: die Dateien werden geschrieben, sobald das Ziehen beginnt, für Ziele, die "
                            "sie vor dem Ablegen lesen. Deaktiviert: sie werden beim Ablegen geschrieben (schneller, "
                            "wenn das Ziehen abgebrochen wird).",
                            "false"),
        "ExtractMailAddress": ("Nur Adressen in EML-Kopfzeilen",
                               "Aktiviert: die Adresskopfzeilen gespeicherter EML-Dateien enthalten nur die "
                               "Mailadressen. Deaktiviert: Namen und Adressen bleiben, wie Outlook sie schreibt.",
                               "false"),
        "DecryptEnabled": ("Verschlüsselte Mails entschlüsseln",
                           "Aktiviert: S/MIME-verschlüsselte Mails werden entschlüsselt gespeichert, wenn das "
                           "Zertifikat des Benutzers es erlaubt. Deaktiviert: sie werden unverändert, weiterhin "
                           "verschlüsselt gespeichert.",
                           "true"),
        "DecryptWithRedemption": ("Mit Redemption entschlüsseln",
                                  "Aktiviert: verschlüsselte Mails werden mit der Bibliothek Redemption neben dem "
                                  "Add-in entschlüsselt, Outlook dient als Ersatz. Deaktiviert: Outlook "
                                  "entschlüsselt sie.",
                                  "false"),
        "SaveWithRedemptionFormat": ("EML-Dateien mit Redemption speichern",
                                     "Die Nummer des Speicherformats von Redemption, mit dem EML-Dateien über die "
                                     "Bibliothek Redemption neben dem Add-in geschrieben werden. Nicht konfiguriert "
                                     "oder deaktiviert: Redemption wird zum Speichern nicht verwendet.",
                                     "-1: Redemption wird nicht verwendet", "Speicherformat von Redemption"),
        "TempFileReadOnly": ("Gespeicherte Dateien schreibgeschützt",
                             "Aktiviert: die von Korvane gespeicherten Dateien werden schreibgeschützt. "
                             "Deaktiviert: sie sind beschreibbar.",
                             "false"),
        "CaptureClipboard": ("Echte Dateien beim Kopieren und Einfügen",
                             "Aktiviert: Kopieren von Mails oder Anlagen in Outlook (Strg+C) legt echte Dateien in "
                             "die Zwischenablage, wie beim Ziehen. Gilt ab dem nächsten Start von Outlook. "
                             "Deaktiviert: die Zwischenablage erhält, was Outlook hineinlegt.",
                             "false"),
        "MaxFiles": ("Höchstzahl an Dateien je Ziehvorgang",
                     "Die größte Zahl an Dateien, die für einen Ziehvorgang gespeichert werden; ein größerer "
                     "Ziehvorgang erhält keine Dateien. Gilt ab dem nächsten Start von Outlook.",
                     "keine Grenze", "Dateien"),
        "KeepTempFilesMinutes": ("Aufbewahrungsdauer gespeicherter Dateien in Minuten",
                                 "Gespeicherte Dateien, die älter sind, werden aus dem temporären Ordner gelöscht. "
                                 "Gilt ab dem nächsten Start von Outlook.",
                                 "1440 Minuten, ein Tag", "Minuten"),
        "Ribbon.Microsoft.Outlook.Explorer": (
            "Registerkarte Korvane im Menüband",
            "Ob das Hauptfenster von Outlook die Registerkarte Korvane zeigt, und ihr Titel. 1; zeigt sie mit "
            "übersetztem Titel; 2;Titel zeigt sie mit dem Titel nach dem Semikolon; 0; (oder jeder andere Text) "
            "blendet sie aus. Gilt ab dem nächsten Start von Outlook.",
            "was die Installation geschrieben hat, meist 1;", "Menüband-Angabe"),
        "Enabled": "Aktiviert", "Disabled": "Deaktiviert",
    },
    "fr-FR": {
        "Korvane": "Complément Korvane pour Microsoft Outlook",
        "Outlook64": "Outlook 64 bits",
        "Outlook32": "Outlook 32 bits sous Windows 64 bits",
        "Supported": "Korvane 1.0 et versions ultérieures",
        "Default": "Non configuré : la valeur par défaut intégrée s'applique ({default}). "
                   "Le choix propre d'un utilisateur (dans l'onglet Korvane) l'emporte sur cette stratégie.",
        "Locked": ("Désactiver les vrais fichiers pour le glisser-déposer",
                   "Activé : les glisser-déposer et copies depuis Outlook restent tels qu'Outlook les fait ; "
                   "Korvane n'enregistre aucun fichier. Désactivé : Korvane enregistre les messages et pièces "
                   "jointes glissés sous forme de fichiers.",
                   "false"),
        "Format": ("Format de fichier des messages glissés",
                   "Le format dans lequel les messages glissés sont enregistrés : MSG (format propre d'Outlook, "
                   "toutes les propriétés conservées) ou EML (MIME, lisible par tout logiciel de messagerie).",
                   "msg", {"msg": "MSG (élément Outlook)", "eml": "EML (message MIME)"}),
        "IgnoreTargetEffectIfDroppedIntoOtherApplication": (
            "Un dépôt dans un autre programme compte toujours comme une copie",
            "Activé : quelle que soit la réponse du programme cible, Outlook apprend que les éléments ont été "
            "copiés ; un message n'est jamais supprimé de la boîte aux lettres par un dépôt dans un autre "
            "programme. Désactivé : la réponse de la cible est transmise, un déplacement (Maj enfoncée) retire "
            "le message d'Outlook.",
            "true"),
        "TextFormat": ("Texte remis à la cible du dépôt",
                       "Outre les fichiers, la cible peut recevoir un texte décrivant les éléments glissés : aucun, "
                       "un tableau ou du JSON.",
                       "none", {"none": "Aucun texte", "table": "Tableau", "json": "JSON"}),
        "SaveOnBeginDrag": ("Enregistrer les fichiers dès le début du glissement",
                            "Activé : les fichiers sont écrits dès que le glissement commence, pour les cibles qui "
                            "les lisent avant le dépôt. Désactivé : ils sont écrits au dépôt (plus rapide quand un "
                            "glissement est annulé).",
                            "false"),
        "ExtractMailAddress": ("Adresses seules dans les en-têtes EML",
                               "Activé : les en-têtes d'adresses des fichiers EML enregistrés sont réduits aux "
                               "seules adresses électroniques. Désactivé : noms et adresses restent tels "
                               "qu'Outlook les écrit.",
                               "false"),
        "DecryptEnabled": ("Déchiffrer les messages chiffrés",
                           "Activé : les messages chiffrés en S/MIME sont enregistrés déchiffrés, si le certificat "
                           "de l'utilisateur le permet. Désactivé : ils sont enregistrés tels quels, toujours "
                           "chiffrés.",
                           "true"),
        "DecryptWithRedemption": ("Déchiffrer avec Redemption",
                                  "Activé : les messages chiffrés sont déchiffrés avec la bibliothèque Redemption "
                                  "placée à côté du complément, Outlook servant de recours. Désactivé : Outlook les "
                                  "déchiffre.",
                                  "false"),
        "SaveWithRedemptionFormat": ("Enregistrer les fichiers EML avec Redemption",
                                     "Le numéro de format d'enregistrement de Redemption utilisé pour écrire les "
                                     "fichiers EML avec la bibliothèque Redemption placée à côté du complément. Non "
                                     "configuré ou désactivé : Redemption n'est pas utilisé pour l'enregistrement.",
                                     "-1 : Redemption n'est pas utilisé", "Format d'enregistrement Redemption"),
        "TempFileReadOnly": ("Fichiers enregistrés en lecture seule",
                             "Activé : les fichiers enregistrés par Korvane sont en lecture seule. Désactivé : ils "
                             "sont modifiables.",
                             "false"),
        "CaptureClipboard": ("Vrais fichiers pour copier-coller",
                             "Activé : copier des messages ou pièces jointes dans Outlook (Ctrl+C) place de vrais "
                             "fichiers dans le presse-papiers, comme un glissement. Prend effet au démarrage "
                             "d'Outlook. Désactivé : le presse-papiers reçoit ce qu'Outlook y place.",
                             "false"),
        "MaxFiles": ("Nombre maximal de fichiers par glissement",
                     "Le plus grand nombre de fichiers enregistrés pour un glissement ; un glissement plus grand "
                     "ne reçoit aucun fichier. Lu au démarrage d'Outlook.",
                     "aucune limite", "Fichiers"),
        "KeepTempFilesMinutes": ("Durée de conservation des fichiers en minutes",
                                 "Les fichiers enregistrés plus anciens sont supprimés du dossier temporaire. Lu au "
                                 "démarrage d'Outlook.",
                                 "1440 minutes, un jour", "Minutes"),
        "Ribbon.Microsoft.Outlook.Explorer": (
            "Onglet Korvane dans le ruban",
            "Si la fenêtre principale d'Outlook affiche l'onglet Korvane, et son titre. 1; l'affiche avec son "
            "titre traduit ; 2;Titre l'affiche avec le titre placé après le point-virgule ; 0; (ou tout autre "
            "texte) le masque. Lu au démarrage d'Outlook.",
            "ce que l'installation a écrit, en général 1;", "Indication du ruban"),
        "Enabled": "Activé", "Disabled": "Désactivé",
    },
}

HERE = os.path.dirname(os.path.abspath(__file__))


def policy_element(name, kind, choices, suffix, key, category):
    policy = name.replace(".", "_") + suffix
    head = ('    <policy name=%s class="Machine" displayName="$(string.%s)" explainText="$(string.%s_Help)" key=%s'
            % (quoteattr(policy), name.replace(".", "_"), name.replace(".", "_"), quoteattr(key)))
    lines = []
    if kind == "bool":
        lines.append(head + " valueName=%s>" % quoteattr(name))
        lines.append('      <parentCategory ref="%s" />' % category)
        lines.append('      <supportedOn ref="SUPPORTED_Korvane" />')
        lines.append("      <enabledValue><string>true</string></enabledValue>")
        lines.append("      <disabledValue><string>false</string></disabledValue>")
    else:
        lines.append(head + ' presentation="$(presentation.%s)">' % name.replace(".", "_"))
        lines.append('      <parentCategory ref="%s" />' % category)
        lines.append('      <supportedOn ref="SUPPORTED_Korvane" />')
        lines.append("      <elements>")
        if kind == "enum":
            lines.append('        <enum id="%s" valueName=%s required="true">' % (name, quoteattr(name)))
            for value in choices:
                lines.append('          <item displayName="$(string.%s_%s)"><value><string>%s</string></value></item>'
                             % (name, value, value))
            lines.append("        </enum>")
        elif kind == "number":
            lines.append('        <decimal id="%s" valueName=%s required="true" minValue="%d" maxValue="%d" '
                         'storeAsText="true" />' % (name, quoteattr(name), choices[0], choices[1]))
        else:
            lines.append('        <text id="%s" valueName=%s required="true" />'
                         % (name.replace(".", "_"), quoteattr(name)))
        lines.append("      </elements>")
    lines.append("    </policy>")
    return "\n".join(lines)


def admx():
    policies = []
    for suffix, key, category in PLACES:
        for name, kind, choices in SETTINGS:
            policies.append(policy_element(name, kind, choices, suffix, key, category))
    return """<?xml version="1.0" encoding="utf-8"?>
<!-- Made by make_policy_templates.py; change that, not this. -->
<policyDefinitions xmlns:xsd="http://www.w3.org/2001/XMLSchema" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"
                   revision="1.0" schemaVersion="1.0"
                   xmlns="http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions">
  <policyNamespaces>
    <target prefix="korvane" namespace="Quembrook.Policies.Korvane" />
    <using prefix="windows" namespace="Microsoft.Policies.Windows" />
  </policyNamespaces>
  <resources minRequiredRevision="1.0" />
  <supportedOn>
    <definitions>
      <definition name="SUPPORTED_Korvane" displayName="$(string.Supported)" />
    </definitions>
  </supportedOn>
  <categories>
    <category name="Korvane" displayName="$(string.Korvane)" />
    <category name="Outlook64" displayName="$(string.Outlook64)"><parentCategory ref="Korvane" /></category>
    <category name="Outlook32" displayName="$(string.Outlook32)"><parentCategory ref="Korvane" /></category>
  </categories>
  <policies>
%s
  </policies>
</policyDefinitions>
""" % "\n".join(policies)


def adml(language):
    texts = TEXTS[language]
    strings = []
    presentations = []

    def string(identifier, text):
        strings.append('      <string id="%s">%s</string>' % (identifier, escape(text)))

    for identifier in ("Korvane", "Outlook64", "Outlook32", "Supported"):
        string(identifier, texts[identifier])
    for name, kind, choices in SETTINGS:
        entry = texts[name]
        identifier = name.replace(".", "_")
        title, explanation, default = entry[0], entry[1], entry[2]
        if kind == "bool":
            default = texts["Enabled"] if default == "true" else texts["Disabled"]
        string(identifier, title)
        string(identifier + "_Help", explanation + "\n\n" + texts["Default"].format(default=default))
        if kind == "enum":
            for value in choices:
                string("%s_%s" % (name, value), entry[3][value])
            control = '<dropdownList refId="%s" noSort="true">%s</dropdownList>' % (name, escape(title))
        elif kind == "number":
            control = '<decimalTextBox refId="%s" spinStep="1">%s</decimalTextBox>' % (name, escape(entry[3]))
        elif kind == "text":
            control = '<textBox refId="%s"><label>%s</label></textBox>' % (identifier, escape(entry[3]))
        else:
            continue
        presentations.append('      <presentation id="%s">%s</presentation>' % (identifier, control))
    return """<?xml version="1.0" encoding="utf-8"?>
<!-- Made by make_policy_templates.py; change that, not this. -->
<policyDefinitionResources xmlns:xsd="http://www.w3.org/2001/XMLSchema"
                           xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" revision="1.0" schemaVersion="1.0"
                           xmlns="http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions">
  <displayName>%s</displayName>
  <description>%s</description>
  <resources>
    <stringTable>
%s
    </stringTable>
    <presentationTable>
%s
    </presentationTable>
  </resources>
</policyDefinitionResources>
""" % (escape(texts["Korvane"]), escape(texts["Korvane"]), "\n".join(strings), "\n".join(presentations))


def main():
    with open(os.path.join(HERE, "korvane.admx"), "w", encoding="utf-8", newline="\r\n") as out:
        out.write(admx())
    for language in TEXTS:
        os.makedirs(os.path.join(HERE, language), exist_ok=True)
        with open(os.path.join(HERE, language, "korvane.adml"), "w", encoding="utf-8", newline="\r\n") as out:
            out.write(adml(language))


if __name__ == "__main__":
    main()
