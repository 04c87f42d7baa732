// MswFile.cpp - the XML results file of statistical analyses: writing, reading (with appended files),
// run labels, and adding a merit function to a stored file.
#include "FileServices.h"
#include "Options.h"
#include "QtSupport.h"
#include "TextServices.h"
#include "XMLReport.h"
#include "XMLReport_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <string>
#include <unordered_map>
#include <vector>

namespace {

// The results namespace; written with a trailing slash in "xmlns" and without it in the schema
// location, on purpose.
const char kNamespace[] = "http://results.example.net/schemas/application/msw/";
const char kSchemaLocation[] =
    "http://results.example.net/schemas/application/msw https://results.example.net/schemas/application/msw.xsd";
const int kMaxAppendDepth = 5;

bool nameIs(const YRef<YDomElement>& element, const char* name) { return element->tagName().equalsNoCase(name); }

// The record of `caseNumber`, created when missing.
XMLReportInfo* recordOf(YHashTable<XMLReportInfo>* table, int caseNumber)
{
    XMLReportInfo probe;
    probe.caseNumber = caseNumber;
    if (XMLReportInfo* found = table->find(probe))
        return found;
    return table->insert(XMLReportInfo(caseNumber));
}

void readHeader(const YRef<YDomElement>& element, XMLReportHeader* header)
{
    // A header written by one core of a multi-core run changes nothing.
    if (element->getAttributeInt("coreid", 0) != 0)
        return;
    header->numCores = element->getAttributeInt("numcores", 0);
    auto textOr = [&](const char* name) {
        return element->hasAttribute(name) ? element->getAttribute(name) : YString("unknown");
    };
    header->date = textOr("date");
    header->title = textOr("title");
    header->analysis = textOr("analysis");
    header->group = textOr("group");
}

void readMeritFunction(const YRef<YDomElement>& element, YHashTable<XMLReportInfo>* table, XMLReportHeader* header)
{
    const int index = header->meritFunctions.count();
    header->meritFunctions.append(XMLMeritFunction{element->getAttribute("value"), element->getAttribute("name")});
    for (YRef<YDomElement> child = element->firstChildElement(); child; child = child->nextSiblingElement()) {
        if (!nameIs(child, "sensval"))
            continue;
        XMLReportInfo* record = recordOf(table, child->getAttributeInt("case", 0));
        record->values.at(index).value = child->getAttributeDouble("value", 0.0);
    }
}

void readSteps(const YRef<YDomElement>& element, YHashTable<XMLReportInfo>* table)
{
    for (YRef<YDomElement> step = element->firstChildElement(); step; step = step->nextSiblingElement()) {
        if (!nameIs(step, "step"))
            continue;
        const YString name = step->getAttribute("name");
        const YString description = step->getAttribute("description");
        XMLReportInfo* record = recordOf(table, step->getAttributeInt("case", 0));
        if (step->hasAttribute("seed")) {
            record->seed = step->getAttributeInt64("seed", 0);
            record->hasSeed = true;
        }
        // A name wins over a description, which is then not stored (on purpose).
        if (!name.isEmpty()) {
            record->name = name;
            record->hasName = true;
        } else if (!description.isEmpty()) {
            record->description = description;
            record->hasDescription = true;
        } else {
            record->description = YString("Run=");
            record->description += YString(record->caseNumber);
            record->hasDescription = true;
        }
        for (YRef<YDomElement> p = step->firstChildElement(); p; p = p->nextSiblingElement()) {
            if (!nameIs(p, "parameter"))
                continue;
            XMLParameterValue parameter;
            parameter.name = p->getAttribute("name");
            parameter.nominal = p->getAttributeDouble("nom", 0.0);
            parameter.usedValue = p->getAttributeDouble("usedvalue", 0.0);
            parameter.hasTolerance = p->hasAttribute("tol");
            parameter.tolerance = parameter.hasTolerance ? p->getAttributeDouble("tol", 0.0) : 0.0;
            record->parameters.append(parameter);
        }
    }
}

bool readMswFile(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header, int* depth)
{
    YRef<YDomDocument> document = YXML_Factory::Make_RapidXML_DOM_Document();
    if (!document->load(path.c_str()))
        return false;
    YRef<YDomElement> root = document->getRoot();
    if (!root || !sp_TestMswVersion(root))
        return false;
    bool ok = true;
    for (YRef<YDomElement> child = root->firstChildElement(); child; child = child->nextSiblingElement()) {
        if (nameIs(child, "append")) {
            for (YRef<YDomElement> file = child->firstChildElement(); file; file = file->nextSiblingElement()) {
                if (!nameIs(file, "file"))
                    continue;
                const YString appended = file->getAttribute("path");
                ++*depth;
                if (*depth < kMaxAppendDepth && ok)
                    ok = readMswFile(appended, table, header, depth);
                else
                    ok = false;
                --*depth;
            }
        } else if (nameIs(child, "header")) {
            readHeader(child, header);
        } else if (nameIs(child, "meritfunction")) {
            readMeritFunction(child, table, header);
        } else if (nameIs(child, "steps")) {
            readSteps(child, table);
        }
    }
    return ok;
}

// The items "key:value" of a run name, keys folded to lower case; items without exactly one ":" are
// ignored.
std::unordered_map<std::string, std::string> nameItems(const QString& name)
{
    std::unordered_map<std::string, std::string> items;
    for (const QString& item : name.split('/')) {
        const QStringList fields = item.split(':');
        if (fields.size() == 2)
            items.emplace(fields[0].toLower().toStdString(), fields[1].toStdString());
    }
    return items;
}

} // namespace

YString xmlreport::makeRunLabel(const YString& name, int detail)
{
    if (detail >= 5)
        return name;
    const auto items = nameItems(toQs(name));
    auto has = [&](const char* key) { return items.count(key) > 0; };
    auto get = [&](const char* key) { return items.at(key); };
    std::string label;
    if (has("lot")) {
        label = "Lot: " + get("lot");
        if (detail >= 2) {
            if (has("devparam"))
                label += "." + get("devparam");
            if (has("tol"))
                label += " (TOL=" + get("tol") + ")";
        }
    } else if (has("refdes")) {
        label = "Ref: " + get("refdes");
        if (detail >= 2 && has("devparam"))
            label += "." + get("devparam");
        if (detail >= 3 && has("pdf"))
            label += " (" + get("pdf") + ")";
        if (detail >= 4 && has("term"))
            label += " (term " + get("term") + ")";
    } else if (has("param")) {
        label = "Var: " + get("param");
        if (detail >= 3 && has("pdf"))
            label += " (" + get("pdf") + ")";
    } else {
        return name;
    }
    return YString(label.c_str(), static_cast<int>(label.size()));
}

namespace {

// Gives every named run the shortest label that no other undescribed run shares.
void describeNamedRuns(YHashTable<XMLReportInfo>* table)
{
    for (int detail = 1; detail <= 5; ++detail) {
        std::unordered_map<std::string, std::vector<XMLReportInfo*>> groups;
        std::vector<std::string> order;
        for (XMLReportInfo& record : *table) {
            if (!record.description.isEmpty())
                continue;
            const YString label = xmlreport::makeRunLabel(record.name, detail);
            const std::string key = label.toLower().c_str();
            auto& group = groups[key];
            if (group.empty())
                order.push_back(key);
            group.push_back(&record);
        }
        if (groups.empty())
            return;
        for (const std::string& key : order) {
            const auto& group = groups[key];
            if (group.size() == 1) {
                group[0]->description = xmlreport::makeRunLabel(group[0]->name, detail);
                group[0]->hasDescription = true;
            }
        }
    }
}

// Saves the document beside `path` and renames it over `path` only once the write is complete; the
// temporary file is removed on failure, and an existing file keeps its permissions.
bool saveReplacing(const YRef<YDomDocument>& document, const YString& path)
{
    const QFileInfo target(toQs(path));
    QTemporaryFile temporary(target.absolutePath() + "/." + target.fileName() + ".XXXXXX");
    temporary.setAutoRemove(false);
    if (!temporary.open())
        return false;
    const QString temporaryPath = temporary.fileName();
    temporary.close();
    const YString temporaryName = toYs(temporaryPath);
    bool ok = document->save(temporaryName.c_str(), 0);
    if (ok) {
        const QFileDevice::Permissions permissions =
            target.exists() ? QFile::permissions(target.absoluteFilePath())
                            : QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup |
                                  QFileDevice::ReadOther;
        QFile::setPermissions(temporaryPath, permissions);
        ok = rename_utf8(temporaryName.c_str(), path.c_str()) == 0;
    }
    if (!ok)
        unlink_utf8(temporaryName.c_str());
    return ok;
}

} // namespace

void sp_DecorateMswRoot(YRef<YDomElement> root)
{
    if (!root)
        return;
    root->setAttribute("xmlns", kNamespace);
    root->setAttribute("xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance");
    root->setAttribute("xsi:schemaLocation", kSchemaLocation);
    root->setAttribute("version", "1.0");
    root->setAttribute("rev", "1");
}

bool sp_TestMswVersion(YRef<YDomElement> root)
{
    if (!root)
        return false;
    const YString version = root->hasAttribute("version") ? root->getAttribute("version") : YString("1.0");
    return version.equalsNoCase("1.0");
}

void sp_WriteElemRealValue(YRef<YDomElement> element, const YString& name, double value)
{
    if (!element)
        return;
    element->setAttribute(name.c_str(), value);
    if (sp_GetBoolOption("WriteXMLAsciiReals", nullptr)) {
        YString twin = name;
        twin.append("_ascii");
        element->setAttribute(twin.c_str(), sp_ConvertRealToJSEng(value, 10, true).c_str());
    }
}

bool sp_WriteMswFile(const YString& path, const YHashTable<XMLReportInfo>& table, const XMLReportHeader& header)
{
    try {
        YRef<YDomDocument> document = YXML_Factory::Make_RapidXML_DOM_Document();
        YRef<YDomElement> root = document->createRoot("msw");
        sp_DecorateMswRoot(root);
        YRef<YDomElement> head = root->appendChild("header");
        if (!header.analysis.isEmpty())
            head->setAttribute("analysis", header.analysis.c_str());
        if (!header.date.isEmpty())
            head->setAttribute("date", header.date.c_str());
        if (header.numCores > 0)
            head->setAttribute("numcores", header.numCores);
        if (!header.title.isEmpty())
            head->setAttribute("title", header.title.c_str());
        if (!header.group.isEmpty())
            head->setAttribute("group", header.group.c_str());
        for (int i = 0; i < header.meritFunctions.count(); ++i) {
            YRef<YDomElement> merit = root->appendChild("meritfunction");
            merit->setAttribute("value", header.meritFunctions[i].value.c_str());
            merit->setAttribute("name", header.meritFunctions[i].name.c_str());
            for (const XMLReportInfo& record : table) {
                YRef<YDomElement> sensval = merit->appendChild("sensval");
                sensval->setAttribute("case", record.caseNumber);
                sp_WriteElemRealValue(sensval, "value", record.values[i].value);
            }
        }
        if (!table.isEmpty()) {
            YRef<YDomElement> steps = root->appendChild("steps");
            for (const XMLReportInfo& record : table) {
                YRef<YDomElement> step = steps->appendChild("step");
                if (record.hasName)
                    step->setAttribute("name", record.name.c_str());
                step->setAttribute("case", record.caseNumber);
                if (record.hasSeed)
                    step->setAttribute("seed", record.seed);
                if (record.hasDescription)
                    step->setAttribute("description", record.description.c_str());
                for (int k = 0; k < record.parameters.count(); ++k) {
                    const XMLParameterValue& p = record.parameters[k];
                    YRef<YDomElement> parameter = step->appendChild("parameter");
                    parameter->setAttribute("name", p.name.c_str());
                    sp_WriteElemRealValue(parameter, "nom", p.nominal);
                    sp_WriteElemRealValue(parameter, "usedvalue", p.usedValue);
                    if (p.hasTolerance)
                        sp_WriteElemRealValue(parameter, "tol", p.tolerance);
                }
            }
        }
        return saveReplacing(document, path);
    } catch (...) {
        return false;
    }
}

bool sp_CompileSensReportData(const YString& path, YHashTable<XMLReportInfo>* table, XMLReportHeader* header)
{
    if (!table || !header)
        return false;
    int depth = 0;
    const bool ok = readMswFile(path, table, header, &depth);
    computeSensitivityDeltas(*table);
    describeNamedRuns(table);
    return ok;
}

bool sp_AppendMeritData(const YString& path, const YString& value, const YString& name, const YVector<double>& values,
                        const YVector<int>& cases)
{
    if (values.count() != cases.count())
        return false;
    YHashTable<XMLReportInfo> table;
    XMLReportHeader header;
    if (!sp_CompileSensReportData(path, &table, &header))
        return false;
    header.meritFunctions.append(XMLMeritFunction{value, name});
    const int n = header.meritFunctions.count();
    for (int k = 0; k < cases.count(); ++k) {
        XMLReportInfo probe;
        probe.caseNumber = cases[k];
        XMLReportInfo* record = table.find(probe);
        // Each run must hold exactly one value per earlier merit function.
        if (!record || record->values.count() != n - 1)
            return false;
        record->values.at(n - 1).value = values[k];
    }
    return sp_WriteMswFile(path, table, header);
}
