#include "query.h"

#include <cctype>

#include "drive_types.h"
#include "name_fold.h"

namespace DriveEmulator {

namespace {

char const kFolderMime[] = "application/vnd.google-apps.folder";

struct Token {
    enum class Type { End, Word, String, Open, Close, Equals, NotEquals };
    Type type;
    std::string text;
};

[[noreturn]] void invalid() { throw Error(400, Messages::kInvalidValue); }

std::vector<Token> tokenize(std::string const& text) {
    std::vector<Token> tokens;
    size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
        if (std::isspace(static_cast<unsigned char>(c))) {
            ++i;
        } else if (c == '(') {
            tokens.push_back({Token::Type::Open, "("});
            ++i;
        } else if (c == ')') {
            tokens.push_back({Token::Type::Close, ")"});
            ++i;
        } else if (c == '=') {
            tokens.push_back({Token::Type::Equals, "="});
            ++i;
        } else if (c == '!' && i + 1 < text.size() && text[i + 1] == '=') {
            tokens.push_back({Token::Type::NotEquals, "!="});
            i += 2;
        } else if (c == '\'') {
            std::string value;
            ++i;
            for (;;) {
                if (i >= text.size()) invalid();  // unterminated literal
                char d = text[i++];
                if (d == '\'') break;
                if (d == '\\') {
                    if (i >= text.size() || (text[i] != '\'' && text[i] != '\\')) invalid();
                    d = text[i++];
                }
                value += d;
            }
            tokens.push_back({Token::Type::String, value});
        } else if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            size_t start = i;
            while (i < text.size() &&
                   (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_')) {
                ++i;
            }
            tokens.push_back({Token::Type::Word, text.substr(start, i - start)});
        } else {
            invalid();
        }
    }
    tokens.push_back({Token::Type::End, ""});
    return tokens;
}

bool isKeyword(Token const& token, char const* keyword) {
    if (token.type != Token::Type::Word) return false;
    std::string lower;
    for (char c : token.text)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower == keyword;
}

std::unique_ptr<QueryNode> leaf(QueryNode::Type type, std::string value, bool truth = true) {
    auto node = std::make_unique<QueryNode>();
    node->type = type;
    node->value = std::move(value);
    node->truth = truth;
    return node;
}

std::unique_ptr<QueryNode> negate(std::unique_ptr<QueryNode> inner) {
    auto node = std::make_unique<QueryNode>();
    node->type = QueryNode::Type::Not;
    node->children.push_back(std::move(inner));
    return node;
}

class Parser {
  public:
    explicit Parser(std::string const& text) : _tokens(tokenize(text)) {}

    ParsedQuery parse() {
        ParsedQuery result;
        result.root = parseOr();
        if (peek().type != Token::Type::End) invalid();
        result.filtersByName = _names > 0;
        findRequiredParent(*result.root, result.requiredParent);
        return result;
    }

  private:
    Token const& peek() const { return _tokens[_pos]; }
    Token const& next() { return _tokens[_pos++]; }

    std::unique_ptr<QueryNode> parseOr() { return parseChain(QueryNode::Type::Or, "or"); }

    std::unique_ptr<QueryNode> parseChain(QueryNode::Type type, char const* keyword) {
        auto first =
            type == QueryNode::Type::Or ? parseChain(QueryNode::Type::And, "and") : parseUnary();
        if (!isKeyword(peek(), keyword)) return first;
        auto node = std::make_unique<QueryNode>();
        node->type = type;
        node->children.push_back(std::move(first));
        while (isKeyword(peek(), keyword)) {
            next();
            node->children.push_back(type == QueryNode::Type::Or
                                         ? parseChain(QueryNode::Type::And, "and")
                                         : parseUnary());
        }
        return node;
    }

    std::unique_ptr<QueryNode> parseUnary() {
        if (isKeyword(peek(), "not")) {
            next();
            return negate(parseUnary());
        }
        if (peek().type == Token::Type::Open) {
            next();
            auto inner = parseOr();
            if (next().type != Token::Type::Close) invalid();
            return inner;
        }
        return parseTerm();
    }

    std::unique_ptr<QueryNode> parseTerm() {
        Token first = next();
        if (first.type == Token::Type::String) {
            // 'ID' in parents
            if (!isKeyword(next(), "in")) invalid();
            Token field = next();
            if (field.type != Token::Type::Word || field.text != "parents") invalid();
            return leaf(QueryNode::Type::InParents, first.text);
        }
        if (first.type != Token::Type::Word) invalid();
        Token op = next();
        bool equals = op.type == Token::Type::Equals;
        bool notEquals = op.type == Token::Type::NotEquals;
        if (first.text == "name") {
            bool contains = isKeyword(op, "contains");
            if (!equals && !notEquals && !contains) invalid();
            Token value = next();
            if (value.type != Token::Type::String) invalid();
            ++_names;
            auto node = leaf(contains ? QueryNode::Type::NameContains : QueryNode::Type::NameEquals,
                             value.text);
            return notEquals ? negate(std::move(node)) : std::move(node);
        }
        if (!equals && !notEquals) invalid();
        Token value = next();
        if (first.text == "trashed") {
            bool truth;
            if (isKeyword(value, "true")) {
                truth = true;
            } else if (isKeyword(value, "false")) {
                truth = false;
            } else {
                invalid();
            }
            return leaf(QueryNode::Type::Trashed, "", truth == equals);
        }
        if (first.text == "mimeType") {
            if (value.type != Token::Type::String) invalid();
            // Only folders are told apart: every file is binary content here.
            bool folder = value.text == kFolderMime;
            return leaf(QueryNode::Type::IsFolder, "", folder == equals);
        }
        invalid();
    }

    static void findRequiredParent(QueryNode const& node, std::string& parent) {
        if (node.type == QueryNode::Type::InParents) {
            parent = node.value;
        } else if (node.type == QueryNode::Type::And) {
            for (auto const& child : node.children) {
                if (child->type == QueryNode::Type::InParents) {
                    parent = child->value;
                    return;
                }
            }
        }
    }

    std::vector<Token> _tokens;
    size_t _pos = 0;
    int _names = 0;
};

void appendSql(QueryNode const& node, std::vector<std::string>& params, std::string const& rootId,
               std::string& sql) {
    switch (node.type) {
        case QueryNode::Type::And:
        case QueryNode::Type::Or: {
            sql += "(";
            for (size_t i = 0; i < node.children.size(); ++i) {
                if (i) sql += node.type == QueryNode::Type::And ? " AND " : " OR ";
                appendSql(*node.children[i], params, rootId, sql);
            }
            sql += ")";
            break;
        }
        case QueryNode::Type::Not:
            sql += "(NOT ";
            appendSql(*node.children[0], params, rootId, sql);
            sql += ")";
            break;
        case QueryNode::Type::InParents:
            sql += "(o.id IN (SELECT child FROM parents WHERE parent = ?))";
            params.push_back(node.value == "root" ? rootId : node.value);
            break;
        case QueryNode::Type::NameEquals:
            sql += "(o.folded = ?)";
            params.push_back(foldName(node.value));
            break;
        case QueryNode::Type::NameContains:
            sql += "(instr(' ' || o.folded, ' ' || ?) > 0)";
            params.push_back(foldName(node.value));
            break;
        case QueryNode::Type::Trashed:
            sql += node.truth ? "(o.trashed = 1)" : "(o.trashed = 0)";
            break;
        case QueryNode::Type::IsFolder:
            sql += node.truth ? "(o.is_dir = 1)" : "(o.is_dir = 0)";
            break;
    }
}

}  // namespace

ParsedQuery parseQuery(std::string const& text) { return Parser(text).parse(); }

std::string queryToSql(QueryNode const& node, std::vector<std::string>& params,
                       std::string const& rootId) {
    std::string sql;
    appendSql(node, params, rootId, sql);
    return sql;
}

}  // namespace DriveEmulator
