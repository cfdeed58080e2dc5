// The bash completion script, written from the command table so that it always knows every command and option.
#include "commandtable.h"

#include <algorithm>

namespace NorvaneCloudTool {

namespace {

// As typed: "-o" for a one-letter name, "--name" otherwise (the tool takes both forms of either).
QString typed(const QString &name)
{
    return (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
}

QStringList typedNames(const QList<QCommandLineOption> &options, bool onlyWithValue)
{
    QStringList names;
    for (const QCommandLineOption &option : options) {
        if (onlyWithValue && option.valueName().isEmpty())
            continue;
        for (const QString &name : option.names())
            names.append(typed(name));
    }
    names.removeDuplicates();
    return names;
}

// The first words of the commands, and for each first word shared by several commands, their second words.
QStringList wordsAt(int position, const QString &firstWord = QString())
{
    QStringList words;
    for (const Command &command : allCommands()) {
        const QStringList parts = command.name.split(QLatin1Char(' '));
        if (position < parts.size() && (position == 0 || parts.first() == firstWord))
            words.append(parts.at(position));
    }
    words.removeDuplicates();
    return words;
}

// Template: %1 options that take a value, %2 the first words, %3 the cases of second words, %4 the cases of options.
constexpr char scriptTemplate[]
    = R"(# bash completion for norvane-cloud, written by `norvane-cloud completion` from its command table.
_norvane_cloud()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local valued=" %1 "
    if [[ $valued == *" $prev "* ]]; then
        compopt -o default
        COMPREPLY=()
        return
    fi
    local words=() i
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -* ]]; then
            [[ $valued == *" ${COMP_WORDS[i]} "* ]] && ((i++))
        else
            words+=("${COMP_WORDS[i]}")
        fi
    done
    if [[ ${#words[@]} -eq 0 && $cur != -* ]]; then
        COMPREPLY=($(compgen -W "%2" -- "$cur"))
        return
    fi
    if [[ ${#words[@]} -eq 1 && $cur != -* ]]; then
        case ${words[0]} in
%3        esac
    fi
    local options
    case "${words[*]:0:2} " in
%4    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    else
        compopt -o default
        COMPREPLY=()
    fi
}
complete -F _norvane_cloud norvane-cloud
)";

} // namespace

QString bashCompletionScript()
{
    const QList<QCommandLineOption> &global = globalCommandLineOptions();
    QList<QCommandLineOption> allOptions = global;
    for (const Command &command : allCommands())
        allOptions += command.options;

    QString secondWords;
    for (const QString &first : wordsAt(0)) {
        const QStringList seconds = wordsAt(1, first);
        if (!seconds.isEmpty())
            secondWords += QStringLiteral("            %1) COMPREPLY=($(compgen -W \"%2\" -- \"$cur\")); return ;;\n")
                               .arg(first, seconds.join(QLatin1Char(' ')));
    }
    // Two-word names first: "stac search" must not be taken for a command "stac".
    QList<Command> byLength = allCommands();
    std::stable_sort(byLength.begin(), byLength.end(), [](const Command &a, const Command &b) {
        return a.name.count(QLatin1Char(' ')) > b.name.count(QLatin1Char(' '));
    });
    QString optionCases;
    for (const Command &command : byLength)
        optionCases += QStringLiteral("        \"%1 \"*) options=\"%2\" ;;\n")
                           .arg(command.name, typedNames(command.options + global, false).join(QLatin1Char(' ')));
    optionCases
        += QStringLiteral("        *) options=\"%1\" ;;\n").arg(typedNames(global, false).join(QLatin1Char(' ')));

    return QString::fromLatin1(scriptTemplate)
        .arg(typedNames(allOptions, true).join(QLatin1Char(' ')), wordsAt(0).join(QLatin1Char(' ')), secondWords,
            optionCases);
}

} // namespace NorvaneCloudTool
