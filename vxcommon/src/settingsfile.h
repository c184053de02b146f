// SPDX-License-Identifier: MIT
//
// A hierarchical store of named values: each node holds settings (label -> Variant) and
// subtrees (label -> SettingsFile). Deeper settings are addressed by dotted labels
// ("a.b.rate"). Keys are compared without regard to ASCII case and keep the spelling of
// their first insertion. A tree travels as bytes (serialize/deserialize), is kept in
// ".vxa" text files (one "name=T:value" line per setting) and can be written as and read
// from JSON.
#pragma once

#include "variant.h"
#include "vxcommon_export.h"
#include "vxtypes.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace veltrax
{

/**
 * Hash of the lower-cased key (ASCII), so that keys differing in case collide.
 * Deliberately not noexcept: that makes the standard library keep each key's hash in
 * its map node, so growing a map never hashes again and a look-up compares hashes
 * before it compares keys.
 */
struct VXCOMMON_EXPORT CaseInsensitiveHash {
    size_t operator()(const std::string& key) const;
};
/** Equality after ASCII lower-casing. */
struct VXCOMMON_EXPORT CaseInsensitiveEqual {
    bool operator()(const std::string& a, const std::string& b) const noexcept;
};
/** strcasecmp order. */
struct VXCOMMON_EXPORT CaseInsensitiveLess {
    bool operator()(const std::string& a, const std::string& b) const noexcept;
};

/** True when @p text begins with @p prefix, compared without regard to case. */
VXCOMMON_EXPORT bool startsWithNoCase(const std::string& text, const std::string& prefix);
/** True when @p text ends with @p postfix, compared without regard to case. */
VXCOMMON_EXPORT bool endsWithNoCase(const std::string& text, const std::string& postfix);

/**
 * A node of a settings tree; a node without parent is a root.
 *
 * Reads of absent settings return defaults (an Empty variant, a fallback, false, or a
 * shared empty tree); only settingThrow() fails on a missing setting.
 *
 * Paths nest at most MaxDepth subtrees deep; creating a deeper one throws VxException
 * VXRV_DATAOVERFLOW "Setting name nested too deeply", which keeps every recursive walk
 * of a tree (copy, destruction, writers) within a bounded stack whatever the input.
 *
 * Not thread-safe: a tree shared between threads needs a lock around it.
 */
class VXCOMMON_EXPORT SettingsFile
{
public:
    using SettingsMap = std::unordered_map<std::string, Variant, CaseInsensitiveHash, CaseInsensitiveEqual>;
    using SubTreeMap = std::unordered_map<std::string, SettingsFile*, CaseInsensitiveHash, CaseInsensitiveEqual>;
    /** Full dotted name -> value, sorted without regard to case. */
    using SortedSettings = std::map<std::string, Variant, CaseInsensitiveLess>;
    /** Full dotted name -> value, unordered. */
    using HashedSettings = SettingsMap;
    using Setting = std::pair<std::string, Variant>;

    static constexpr int MaxDepth = 256;

    SettingsFile();
    /** Deep copy of settings and subtrees; the copy is a root without a file. */
    SettingsFile(const SettingsFile& other);
    /** Takes over content and file of @p other, which is left empty. */
    SettingsFile(SettingsFile&& other) noexcept;
    /** Deep copy of settings and subtrees; this node keeps its place in its tree and its file. */
    SettingsFile& operator=(const SettingsFile& other);
    SettingsFile& operator=(SettingsFile&& other);
    /** Saves first when auto-save on exit is on and the tree is modified. */
    ~SettingsFile();

    // ---- paths ------------------------------------------------------------------------

    /**
     * (head, tail) of a dotted label: ("", "") for "" and "."; (label, "") without a dot;
     * ("a", ".") for "a."; otherwise the text before and after the first dot.
     */
    static std::pair<std::string, std::string> splitLabel(const std::string& label);
    /** The setting at @p label, created (with its subtrees) when missing and @p create is set; else null. */
    Variant* findValue(const std::string& label, bool create);
    const Variant* findValue(const std::string& label) const;
    /** The subtree at @p label (this node for an empty label), created when missing and @p create is set. */
    SettingsFile* findSubTree(const std::string& label, bool create);
    const SettingsFile* findSubTree(const std::string& label) const;
    /** The setting at @p label, created when missing. Does not mark the tree modified. */
    Variant& findValueRef(const std::string& label);
    /** The subtree at @p label, created when missing. */
    SettingsFile& findSubTreeRef(const std::string& label);

    // ---- single settings --------------------------------------------------------------

    /** A copy of the value, or Empty. */
    Variant setting(const std::string& label) const;
    /** setting(prefix + label). */
    Variant setting(const std::string& prefix, const std::string& label) const;
    /** A copy of the value; VxException VXRV_NOTFOUND "Setting <label> not found" when missing. */
    Variant settingThrow(const std::string& label) const;
    Variant defaultSetting(const std::string& label, const Variant& fallback) const;
    bool hasSetting(const std::string& label) const;
    bool hasSetting(const std::string& prefix, const std::string& label) const;
    /** Copies the value into @p value and returns true; leaves @p value alone and returns false when missing. */
    bool getSetting(const std::string& label, Variant& value) const;
    bool getSetting(const std::string& prefix, const std::string& label, Variant& value) const;
    /** setting(prefix + label) for C strings (a null pointer is the empty text). */
    Variant getSetting(const char* prefix, const char* label) const;
    /** Stores @p value, creating the setting and its subtrees; marks the tree modified. */
    void setSetting(const std::string& label, const Variant& value);
    void setSetting(const std::string& prefix, const std::string& label, const Variant& value);
    /** Stores the text @p value at @p label (null pointers are the empty text). */
    void addSetting(const char* label, const char* value);
    /** Stores @p value unless it is Empty; returns whether it stored. */
    bool setSettingIfValid(const std::string& label, const Variant& value);
    /** The setting at @p label, created Empty when missing; marks the tree modified. */
    Variant& operator[](const std::string& label);
    /** setSetting(setting.first, setting.second). */
    SettingsFile& operator<<(const Setting& setting);

    // ---- subtrees and structure -------------------------------------------------------

    /**
     * The subtree at @p label, this node for an empty label. A missing one gives a
     * shared empty tree that is never modified (isValid() is false for it).
     */
    const SettingsFile& subTree(const std::string& label) const;
    /** The subtree at @p label, created with its path when missing; this node for an empty label. */
    SettingsFile& subTree(const std::string& label);
    /**
     * False when missing; else true if @p existsOnly, or when it holds a setting at any
     * depth. The empty label names this node, as in subTree().
     */
    bool hasSubTree(const std::string& label, bool existsOnly = true) const;
    /** Labels of the direct subtrees, in map order; with @p nonEmptyOnly only those holding a setting somewhere. */
    LabelList subTrees(bool nonEmptyOnly = false) const;
    /** Labels of this node's own settings, in map order. */
    LabelList settingLabels() const;
    /** The node's own settings and direct subtrees, for iteration. */
    const SettingsMap& settings() const { return m_settings; }
    const SubTreeMap& subTreeMap() const { return m_subTrees; }

    /**
     * Removal by prefix: settings of this node whose label begins with the head of
     * @p label, and all settings of subtrees whose label begins with it; with a dotted
     * label the tail is cleared in the subtree named by the head. Subtrees themselves
     * stay. An empty label removes every setting at every depth. Returns the number of
     * settings removed.
     */
    size_t clear(const std::string& label = std::string());
    /**
     * Removes the setting at the dotted @p label and the subtree at the same path, if
     * any. Returns the number of settings removed.
     */
    size_t erase(const std::string& label);
    /** Removes the subtrees that hold no setting at any depth; returns how many direct and deeper ones went. */
    size_t removeEmptySubTrees();
    /** Number of settings in this node and all subtrees. */
    size_t size() const;
    size_t count() const { return size(); }
    /** True when no setting exists at any depth (empty subtrees may exist). */
    bool empty() const;

    /** The dotted name of @p label of this node from the root ("a.b.label"); without a label the node's own path. */
    std::string getFullName(const std::string& label = std::string()) const;
    SettingsFile& root();
    const SettingsFile& root() const;
    SettingsFile* parent() const { return m_parent; }
    /** This node's label in its parent (empty for a root). */
    const std::string& label() const { return m_label; }

    // ---- bulk operations --------------------------------------------------------------
    // Names are full dotted names relative to this node; prefixes and postfixes are
    // compared without regard to case. Each returns the number of settings affected.

    /** Copies the settings whose name begins with @p prefix into @p target under the same names. */
    size_t copyTo(SettingsFile& target, const std::string& prefix = std::string()) const;
    /** Copies the settings whose name does not begin with @p prefix. */
    size_t copyToExcept(SettingsFile& target, const std::string& prefix) const;
    /** Copies the settings whose name ends with @p postfix. */
    size_t copyToPostfix(SettingsFile& target, const std::string& postfix) const;
    /** Renames every setting whose name begins with @p oldPrefix to begin with @p newPrefix instead. */
    size_t replacePrefix(const std::string& oldPrefix, const std::string& newPrefix);
    /** For each setting of this tree whose name begins with @p prefix and that @p source holds too, takes the source's value. */
    size_t updateValues(const SettingsFile& source, const std::string& prefix = std::string());
    /** The same for names ending with @p postfix. */
    size_t updateValuesPostfix(const SettingsFile& source, const std::string& postfix);
    /** Removes the settings whose name ends with @p postfix. */
    size_t clearPostfix(const std::string& postfix);
    /** Removes the settings whose name does not begin with @p prefix. */
    size_t clearExcept(const std::string& prefix);
    /** Removes the settings whose name does not end with @p postfix. */
    size_t clearExceptPostfix(const std::string& postfix);
    /** Adds every setting as (@p prefix + full name, value) to @p out. */
    void getAll(SortedSettings& out, const std::string& prefix = std::string()) const;
    void getAll(HashedSettings& out, const std::string& prefix = std::string()) const;
    /** Every setting by full name, sorted without regard to case. */
    std::vector<Setting> flattened() const;
    /** Stores every setting of @p other under @p prefix + its full name. Returns how many. */
    size_t import(const SettingsFile& other, const std::string& prefix = std::string());

    // ---- flags ------------------------------------------------------------------------

    bool isModified() const { return m_modified; }
    /**
     * true: marks this node and its ancestors up to the first one already marked.
     * false: unmarks this node and all its subtrees.
     */
    void setDirty(bool dirty);
    /** Whether the byte form is written scrambled ('#'); set by reading a '#' form. */
    bool isEncrypted() const { return m_encrypted; }
    void setEncrypted(bool encrypted) { m_encrypted = encrypted; }
    /** False only for the shared empty tree that const subTree() gives for a missing path. */
    bool isValid() const;

    // ---- byte form --------------------------------------------------------------------

    /**
     * Appends the byte form: marker '*' ('#' when encrypted), 32-bit record count, then
     * one record per setting ('W', full name, 0x00, value form). Bytes already in @p out
     * are kept. The writer does not apply the reader's plausibility check: more than 20
     * settings averaging under 7 bytes a record (one-letter names, values without a
     * payload) give a form that deserialize() refuses with VXRV_DATAOVERFLOW.
     */
    void serialize(VxByteArray& out) const;
    /**
     * Replaces the content with the form read from @p in at @p offset and returns the
     * bytes consumed. Errors: VxException VXRV_INSUFFICIENTDATA when fewer than 5 bytes
     * are there, VXRV_DATAOVERFLOW for an implausible count or a scrambled body with a
     * run of more than 7 zero bytes (tree unchanged in these cases), std::out_of_range
     * "index out of range" for a record or payload that runs past the data (the tree
     * then holds the records read before it). A scrambled form's length is unknown
     * until it is unscrambled, so the zero-run check covers every byte from @p offset
     * to the end of @p in: keep a '#' form last in its array.
     */
    int deserialize(const VxByteArray& in, int offset = 0);
    /** Writes the records of this node and its subtrees under @p prefix; returns how many. */
    size_t serializeSubTree(VxByteArray& out, const std::string& prefix) const;
    /** Writes one record. */
    void serializeSetting(const std::pair<const std::string, Variant>& setting, VxByteArray& out, const std::string& prefix) const;
    /** Reads one record at @p position of @p in into this tree; returns its length. */
    int deserializeSetting(const VxByteArray& in, int position);

    // ---- text form (.vxa) -------------------------------------------------------------

    /**
     * Replaces @p out with the tree's text: two header comment lines (none when
     * @p creator is "-"), then one "name=T:value" line per setting whose label begins
     * with @p filter, subtrees before settings, each level sorted without regard to case.
     */
    void writeVxaString(const std::string& filter, std::string& out, const std::string& creator = std::string()) const;
    /** Appends the lines of this node and its subtrees under @p prefix. */
    void writeVxaStringSubTree(const std::string& filter, std::string& out, const std::string& prefix) const;
    /**
     * Stores the settings of @p text whose name begins with @p filter, under
     * @p prefix + name. Comment lines (';'), lines without '=' and lines that cannot be
     * stored are skipped. Marks the tree modified.
     */
    void readVxaString(const std::string& text, const std::string& filter = std::string(), const std::string& prefix = std::string());

    // ---- files ------------------------------------------------------------------------
    // File names without an extension get ".vxa". Failures are logged and reported as
    // false; nothing throws.

    /** Replaces the content with the file's settings and remembers the file. */
    bool open(const std::string& filename);
    /** Empties the tree and remembers @p filename; the file is written (empty) at once. */
    bool create(const std::string& filename);
    /** Writes the tree to the remembered file and marks it unmodified. */
    bool save();
    /** Saves when auto-save on exit is on and the tree is modified, then forgets the file. Returns false when that save failed. */
    bool close();
    const std::string& getFilename() const { return m_filename; }
    /** Adds the settings of a text file (see readVxaString()). */
    bool readVxa(const std::string& filename, const std::string& filter = std::string(), const std::string& prefix = std::string());
    /** Writes the tree's text (see writeVxaString()) to a file, atomically. */
    bool writeVxa(const std::string& filename, const std::string& filter = std::string(), const std::string& creator = std::string()) const;
    /** Adds every setting of a text file under @p prefix. */
    bool import(const std::string& filename, const std::string& prefix);
    /** Whether a modified root bound to a file saves itself in close() and on destruction. */
    void setAutoSaveOnExit(bool save) { m_autoSaveOnExit = save; }
    bool autoSaveOnExit() const { return m_autoSaveOnExit; }

    // ---- JSON -------------------------------------------------------------------------

    /**
     * Appends the tree as one JSON object without white space. Subtrees holding no
     * setting become [], list subtrees (an itemCount setting or a non-empty item0) become
     * arrays of their item0, item1, ... subtrees (up to itemCount, missing ones as {};
     * without a usable itemCount up to the first gap; a count above 65536 only as far as
     * the items that exist). Texts are not escaped. Throws std::logic_error when an Empty
     * value is met.
     */
    void writeJsonString(std::string& out) const;
    /**
     * Replaces the content with the JSON object @p text: objects become subtrees, arrays
     * of objects lists (item0... and itemCount), arrays of only strings LabelLists, of
     * only integers 0..4294967295 IntLists, of other numbers Vectors; numbers become
     * Int64 or Double, null the text "null". Returns false (tree unchanged) when the text
     * is not a JSON object or nests deeper than MaxDepth.
     */
    bool readJsonString(const std::string& text);

private:
    friend struct SettingsFileByteReader;
    SettingsFile(SettingsFile* parent, const std::string& label);
    SettingsFile* childFor(const std::string& label, bool create);
    const SettingsFile* childFor(const std::string& label) const;
    int depth() const;
    void copyContentFrom(const SettingsFile& other);
    void deleteSubTrees();
    void swapContent(SettingsFile& other);
    template <typename Visitor> void visit(std::string& prefix, Visitor&& visitor) const;
    template <typename Predicate> size_t removeIf(std::string& prefix, Predicate&& predicate);
    SettingsFile* descend(const std::string& label, size_t end, bool create);
    Variant* locate(const std::string& label, bool create, SettingsFile** owner);
    size_t serializeNode(VxByteArray& out, std::string& prefix) const;
    void writeJsonObject(std::string& out) const;

    SubTreeMap m_subTrees;
    SettingsMap m_settings;
    SettingsFile* m_parent = nullptr;
    std::string m_label;
    std::string m_filename;
    bool m_modified = false;
    bool m_encrypted = false;
    bool m_autoSaveOnExit = false;
};

} // namespace veltrax
